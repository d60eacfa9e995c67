#include "utils/log_file_sink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace varnel::utils {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr std::chrono::seconds kRetryInterval{5};

/// Other programs may write to the log directory: a link planted there is not followed, and a FIFO
/// does not hang us.
void RemoveUnlessRegular(const std::string& name) {
  struct stat info {};
  if (::lstat(name.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    ::unlink(name.c_str());
  }
}

}  // namespace

LogFileSink::LogFileSink(std::string path, size_t max_bytes, size_t max_files, Clock& clock)
    : path_(std::move(path)), max_bytes_(max_bytes), max_files_(max_files), clock_(clock) {
  Open();
}

void LogFileSink::sink_it_(const spdlog::details::log_msg& message) {
  if (!EnsureOpen()) {
    ++lost_lines_;
    return;
  }
  // A line longer than a whole file would break the size limit.
  spdlog::details::log_msg line = message;
  line.payload = {line.payload.data(), std::min(line.payload.size(), max_bytes_ / 2)};
  try {
    file_->log(line);
  } catch (const std::exception& e) {
    ++lost_lines_;
    Close(e.what());
  }
}

void LogFileSink::flush_() {
  if (!EnsureOpen()) {
    return;
  }
  if (FileWasReplaced()) {
    Close("removed or replaced");
    next_try_ = clock_.Now();
    return;
  }
  try {
    file_->flush();
  } catch (const std::exception& e) {
    Close(e.what());
  }
}

void LogFileSink::set_formatter_(std::unique_ptr<spdlog::formatter> formatter) {
  formatter_ = std::move(formatter);
  if (file_) {
    file_->set_formatter(formatter_->clone());
  }
}

void LogFileSink::Open() {
  spdlog::file_event_handlers handlers;
  handlers.before_open = [](const spdlog::filename_t& name) { RemoveUnlessRegular(name); };
  handlers.after_open = [this](const spdlog::filename_t&, std::FILE* file) { OnFileOpened(file); };
  file_ = std::make_unique<spdlog::sinks::rotating_file_sink_st>(path_, max_bytes_, max_files_,
                                                                 false, handlers);
  file_->set_formatter(formatter_->clone());
}

bool LogFileSink::EnsureOpen() {
  if (file_) {
    return true;
  }
  if (clock_.Now() < next_try_) {
    return false;
  }
  try {
    Open();
    ReportLostLines();
  } catch (const std::exception&) {
    file_.reset();
    next_try_ = clock_.Now() + kRetryInterval;
  }
  return file_ != nullptr;
}

void LogFileSink::Close(const char* why) {
  std::fprintf(stderr, "varnel: log file %s lost: %s\n", path_.c_str(), why);
  file_.reset();
  next_try_ = clock_.Now() + kRetryInterval;
}

void LogFileSink::ReportLostLines() {
  if (lost_lines_ == 0) {
    return;
  }
  const std::string text = fmt::format(
      "[MAIN:{}] {} log lines were lost, the file could not be written", __LINE__, lost_lines_);
  file_->log(spdlog::details::log_msg("varnel", spdlog::level::warn, text));
  lost_lines_ = 0;
}

/// Called for the first file and after each rotation.
void LogFileSink::OnFileOpened(std::FILE* file) {
  const int fd = ::fileno(file);
  struct stat info {};
  ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  ::fchmod(fd, kFileMode);
  ::fstat(fd, &info);
  device_ = info.st_dev;
  inode_ = info.st_ino;
}

bool LogFileSink::FileWasReplaced() const {
  struct stat info {};
  return ::stat(path_.c_str(), &info) != 0 || info.st_dev != device_ || info.st_ino != inode_;
}

}  // namespace varnel::utils
