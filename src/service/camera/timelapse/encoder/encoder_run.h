#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "service/camera/timelapse/encoder/encoder_programs.h"
#include "utils/safe_exec.h"

namespace varnel::service {

/// How a run of the encoder ended.
enum class [[nodiscard]] EncoderRun{
    kDone,
    kFailed,    ///< it came to its own end, or crashed, and could not do it
    kShortage,  ///< there was no room for what it writes
    kStill,     ///< it did nothing any more and was ended
    kNotRun,    ///< not started, or killed: tells nothing
};

/// 0 when it cannot be told.
[[nodiscard]] uintmax_t SizeOfFile(const std::filesystem::path& file);
/// Whether a write failed for want of room.
[[nodiscard]] bool IsShortage(const std::error_code& error);

/// The last line of what a program wrote, without the blanks around it; "\r" ends a line too.
[[nodiscard]] std::string LastLine(std::string_view text);

/// The encoder: finds it and runs it, one command line after another. Thread-safe.
class Ffmpeg {
 public:
  /// @param min_free_bytes that what it writes must leave to the printer; 0: any
  explicit Ffmpeg(EncoderPrograms programs, uint64_t min_free_bytes = 0);

  /// Missing is logged. One that comes later is found.
  [[nodiscard]] bool Available() const;
  /// A command without arguments, at the lowest priority.
  /// @param processor_time what no run of its kind needs, on the slowest board
  /// @param progress a file that grows while it works; empty: none
  [[nodiscard]] utils::SafeExec Command(std::chrono::seconds processor_time,
                                        const std::string& progress = {}) const;
  /// Whether a file system has room for this besides what is the printer's.
  [[nodiscard]] bool HasRoom(const std::filesystem::path& directory, uint64_t bytes) const;

  const EncoderPrograms& Programs() const { return programs_; }

 private:
  const EncoderPrograms programs_;
  const uint64_t min_free_bytes_;
};

/// A run and what it said.
struct RunResult {
  EncoderRun run = EncoderRun::kNotRun;
  std::string standard_output;
  std::string standard_error;
};

/// How the lines of a run that fails begin.
struct RunTexts {
  const char* failed;  ///< before the exit code
  const char* fatal;   ///< before why it could not be started
};

/// Runs a command line that has been built; what comes out is logged.
/// @param log gets what it says; empty: captured
[[nodiscard]] RunResult RunEncoder(utils::SafeExec& command, const RunTexts& texts,
                                   const std::filesystem::path& log = {});

}  // namespace varnel::service
