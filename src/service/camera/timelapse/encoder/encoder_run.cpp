#include "service/camera/timelapse/encoder/encoder_run.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include "utils/free_space.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr size_t kOutputLimit = size_t{64} << 10U;
constexpr size_t kLoggedTail = 4096;
constexpr size_t kLoggedCommand = 2048;
constexpr size_t kLoggedLine = 512;

/// A status that tells of the program and its input, and not of what was done to it.
bool IsOwnEnd(int32_t exit_code) {
  constexpr int32_t kNotExecutable = 127;
  constexpr int32_t kSignals = 128;
  constexpr std::array kCrashes{SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};
  // Newer versions end with the low byte of a negative error number, above those of signals.
  constexpr int32_t kErrors = kSignals + SIGSYS;
  constexpr int32_t kGivenUp = 255;
  return (exit_code >= 0 && exit_code < kNotExecutable) ||
         (exit_code > kErrors && exit_code != kGivenUp) ||
         std::find(kCrashes.begin(), kCrashes.end(), exit_code - kSignals) != kCrashes.end();
}

EncoderRun EndOf(const utils::SafeExec::Result& result) {
  constexpr int32_t kGivenUp = -1;
  if (result.success) return EncoderRun::kDone;
  if (result.exit_code == kGivenUp) return EncoderRun::kStill;
  return IsOwnEnd(result.exit_code) ? EncoderRun::kFailed : EncoderRun::kNotRun;
}

std::string TailOf(const fs::path& log) {
  const utils::UniqueFd file(::open(log.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  const off_t size = file ? ::lseek(file.Get(), 0, SEEK_END) : -1;
  if (size <= 0) return {};
  std::string tail(kLoggedTail, '\0');
  const ssize_t got = ::pread(file.Get(), tail.data(), tail.size(),
                              std::max<off_t>(0, size - static_cast<off_t>(kLoggedTail)));
  tail.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
  return tail;
}

}  // namespace

uintmax_t SizeOfFile(const fs::path& file) {
  std::error_code error;
  const uintmax_t size = fs::file_size(file, error);
  return error ? 0 : size;
}

bool IsShortage(const std::error_code& error) {
  return error == std::errc::no_space_on_device ||
         error == std::error_code(EDQUOT, std::generic_category());
}

std::string LastLine(std::string_view text) {
  constexpr const char* kBlanks = " \t\r\n";
  const size_t end = text.find_last_not_of(kBlanks);
  if (end == std::string_view::npos) return {};
  text = text.substr(0, end + 1);
  const size_t line_end = text.find_last_of("\r\n");
  if (line_end != std::string_view::npos) text.remove_prefix(line_end + 1);
  return std::string(text.substr(text.find_first_not_of(kBlanks)));
}

Ffmpeg::Ffmpeg(EncoderPrograms programs, uint64_t min_free_bytes)
    : programs_(std::move(programs)), min_free_bytes_(min_free_bytes) {
  if (Available()) VLOG_INFO(kTag, "FFmpeg program is {}", programs_.ffmpeg);
}

bool Ffmpeg::Available() const {
  const bool available = ::access(programs_.ffmpeg.c_str(), X_OK) == 0;
  if (!available) VLOG_ERROR(kTag, "FFmpeg program is not exists.");
  return available;
}

utils::SafeExec Ffmpeg::Command(std::chrono::seconds processor_time,
                                const std::string& progress) const {
  const auto limit = std::chrono::milliseconds(processor_time).count();
  utils::SafeExec command(programs_.ffmpeg);
  command.SetIdlePriority()
      .SetOutputLimit(kOutputLimit)
      .SetWorkLimits({programs_.still_limit_ms, static_cast<uint64_t>(limit), progress});
  return command;
}

bool Ffmpeg::HasRoom(const fs::path& directory, uint64_t bytes) const {
  return utils::EnoughFreeSpace(directory, min_free_bytes_ + bytes);
}

RunResult RunEncoder(utils::SafeExec& command, const RunTexts& texts, const fs::path& log) {
  VLOG_INFO(kTag, "{}", utils::LogText(command.ToString(), kLoggedCommand));
  if (!log.empty()) {
    ::unlink(log.c_str());  // that of an earlier run, which may still be written to, is given up
    command.SetOutputFile(log.string());
  }
  auto run = command.TryExecute();
  if (!run) {
    VLOG_ERROR(kTag, "{}: {}", texts.fatal, run.Why());
    return {};
  }
  if (run->success) {
    VLOG_INFO(kTag, "exit code: {}", run->exit_code);
  } else {
    VLOG_ERROR(kTag, "{}: {}", texts.failed, run->exit_code);
    const std::string said = LastLine(log.empty() ? run->standard_error : TailOf(log));
    if (!said.empty()) VLOG_ERROR(kTag, "{}", utils::LogText(said, kLoggedLine));
  }
  return {EndOf(*run), std::move(run->standard_output), std::move(run->standard_error)};
}

}  // namespace varnel::service
