#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <optional>
#include <system_error>

#include "service/camera/timelapse/encoder/film_programs.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr const char* kNoDuration = "00:00";
constexpr uint32_t kProbeLimitMs = 30'000;
constexpr size_t kProbeOutput = 256;

std::optional<std::string> AsMinutes(const std::string& seconds_text) {
  double seconds = 0;
  const char* end = seconds_text.data() + seconds_text.size();
  const auto [rest, error] = std::from_chars(seconds_text.data(), end, seconds);
  if (error != std::errc{} || rest != end || !std::isfinite(seconds) || seconds < 0 ||
      seconds > 1e9) {
    return std::nullopt;
  }
  const auto whole = static_cast<uint64_t>(std::llround(seconds));
  return fmt::format("{:02}:{:02}", whole / 60, whole % 60);
}

}  // namespace

std::string VideoDuration(const EncoderPrograms& programs, const fs::path& video) {
  std::error_code error;
  if (!fs::exists(video, error)) {
    VLOG_ERROR(kTag, "Get video duration failed, {} is not exist.", video.string());
    return kNoDuration;
  }
  utils::SafeExec command(programs.ffprobe);
  for (const char* argument : {"-v", "error", "-show_entries", "format=duration", "-of",
                               "default=noprint_wrappers=1:nokey=1", video.c_str()}) {
    command.AddArg(argument);
  }
  VLOG_INFO(kTag, "Get video duration, command is {}", command.ToString());
  std::string problem = "not a number of seconds";
  const auto run =
      command.SetIdlePriority().SetTimeout(kProbeLimitMs).SetOutputLimit(kProbeOutput).TryExecute();
  if (!run) {
    problem = run.Why();
  } else if (run->success) {
    const std::string seconds = LastLine(run->standard_output);
    VLOG_INFO(kTag, "Video duration is {}", utils::LogText(seconds));
    if (const auto duration = AsMinutes(seconds)) return *duration;
  } else {
    problem = fmt::format("exit code {}", run->exit_code);
  }
  VLOG_ERROR(kTag, "Get video duration failed, reason: {}", problem);
  return kNoDuration;
}

}  // namespace varnel::service
