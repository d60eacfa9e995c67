#pragma once

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "utils/clock.h"

namespace varnel::utils {

/// spdlog's rotating file sink made fit to run for months. That sink is unusable after a failed
/// rotation (it writes through a null file) and goes on writing into a file that somebody removed;
/// this one then drops it, counts the lost lines and opens a new one when that works again.
class LogFileSink final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  /// Throws spdlog::spdlog_ex when the file cannot be opened.
  LogFileSink(std::string path, size_t max_bytes, size_t max_files, Clock& clock);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override;
  void set_formatter_(std::unique_ptr<spdlog::formatter> formatter) override;

 private:
  void Open();
  bool EnsureOpen();
  void Close(const char* why);
  void ReportLostLines();
  void OnFileOpened(std::FILE* file);
  bool FileWasReplaced() const;

  const std::string path_;
  const size_t max_bytes_;
  const size_t max_files_;
  Clock& clock_;
  // Guarded by the mutex of base_sink.
  std::unique_ptr<spdlog::sinks::rotating_file_sink_st>
      file_;  ///< null while logging is impossible
  Clock::TimePoint next_try_{};
  uint64_t lost_lines_ = 0;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace varnel::utils
