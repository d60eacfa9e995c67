#include "service/camera/timelapse/encoder/video_encoder.h"

#include <fmt/format.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <optional>
#include <system_error>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr const char* kNoDuration = "00:00";
constexpr mode_t kFileMode = 0644;
constexpr uint32_t kJoinFrameMs = 50;
constexpr uint32_t kCheckFrameMs = 1'000;
constexpr uint32_t kProbeLimitMs = 30'000;
constexpr size_t kProbeOutput = 256;
constexpr uint64_t kLongestMs = 24ULL * 3'600 * 1'000;

uint32_t LimitFor(uint32_t base, uint32_t per_frame, size_t frames) {
  return static_cast<uint32_t>(std::min(kLongestMs, base + uint64_t{per_frame} * frames));
}

bool FindProgram(const std::string& program) {
  const bool found = ::access(program.c_str(), X_OK) == 0;
  if (found) {
    VLOG_INFO(kTag, "FFmpeg program is {}", program);
  } else {
    VLOG_ERROR(kTag, "FFmpeg program is not exists.");
  }
  return found;
}

/// Runs a command line that has been built; `failure` and `fatal` begin the lines of their cases.
EncoderRun Run(utils::SafeExec& command, const char* failure, const char* fatal) {
  constexpr int32_t kTimeLimit = -1;
  constexpr int32_t kNotExecutable = 127;  // and above it the signals
  VLOG_INFO(kTag, "{}", utils::LogText(command.ToString(), 2048));
  try {
    const utils::SafeExec::Result result = command.Execute();
    if (result.success) {
      VLOG_INFO(kTag, "exit code: {}", result.exit_code);
      return EncoderRun::kDone;
    }
    VLOG_ERROR(kTag, "{}: {}", failure, result.exit_code);
    if (!result.standard_error.empty())
      VLOG_ERROR(kTag, "{}", utils::LogText(result.standard_error, 512));
    if (result.exit_code == kTimeLimit) return EncoderRun::kTimedOut;
    if (result.exit_code < kNotExecutable) return EncoderRun::kFailed;
  } catch (const utils::SafeExecException& error) {
    VLOG_ERROR(kTag, "{}: {}", fatal, error.what());
  }
  return EncoderRun::kNotRun;
}

bool HasContent(const fs::path& file) {
  std::error_code error;
  const uintmax_t size = fs::file_size(file, error);
  return !error && size > 0;
}

/// A place for the output that nobody else can reach, not even a run that a killed daemon left
/// behind.
std::optional<utils::PrivateDirectory> Output(const fs::path& target) {
  std::error_code error;
  auto output = utils::PrivateDirectory::Create(target.parent_path(), error);
  if (error) VLOG_ERROR(kTag, "{} cannot be written: {}", target.string(), error.message());
  return output;
}

/// What the encoder wrote under the target's name.
bool HasContent(const utils::PrivateDirectory& output, const fs::path& target) {
  return HasContent(output.PathOf(target.filename()));
}

bool PutInPlace(const utils::PrivateDirectory& output, const fs::path& target) {
  const std::string name = target.filename();
  const std::error_code error = output.Publish(name, name, kFileMode);
  if (error) VLOG_ERROR(kTag, "{} cannot be written: {}", target.string(), error.message());
  return !error;
}

/// The log of one run; that of an earlier one, which may still be written to, is given up.
void NewLog(utils::SafeExec& command, const fs::path& log) {
  ::unlink(log.c_str());
  command.SetOutputFile(log.string());
}

std::string Trimmed(const std::string& text) {
  constexpr const char* kSpace = " \t\r\n";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

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

VideoEncoder::VideoEncoder(const EncoderPrograms& programs)
    : programs_(programs), available_(FindProgram(programs.ffmpeg)) {}

bool VideoEncoder::Available() const {
  if (!available_) VLOG_ERROR(kTag, "FFmpeg program is not exists.");
  return available_;
}

utils::SafeExec VideoEncoder::Ffmpeg() const {
  utils::SafeExec command(programs_.ffmpeg);
  command.SetIdlePriority().SetOutputLimit(4096);
  return command;
}

EncoderRun VideoEncoder::Encode(const fs::path& photo, uint32_t frame_rate, const fs::path& segment,
                                const char* failure) const {
  if (!Available()) return EncoderRun::kNotRun;
  auto output = Output(segment);
  if (!output) return EncoderRun::kNotRun;
  utils::SafeExec command = Ffmpeg();
  const std::string rate = std::to_string(frame_rate);
  for (const char* argument : {"-threads", "1", "-y", "-f", "image2", "-r", rate.c_str(), "-i",
                               photo.c_str(), "-c:v", "libx264", "-pix_fmt", "yuv420p",
                               "-profile:v", "high", "-crf", "18", "-preset", "veryfast"}) {
    command.AddArg(argument);
  }
  command.AddArg(segment.filename()).SetWorkingDir(output->Fd());
  command.SetTimeout(programs_.frame_limit_ms);
  const EncoderRun run = Run(command, failure, "Execute fatal error");
  if (run != EncoderRun::kDone) return run;
  if (!HasContent(*output, segment)) return EncoderRun::kFailed;
  return PutInPlace(*output, segment) ? EncoderRun::kDone : EncoderRun::kNotRun;
}

EncoderRun VideoEncoder::EncodeSegment(const fs::path& photo, uint32_t frame_rate,
                                       const fs::path& segment) const {
  return Encode(photo, frame_rate, segment, "Generate segment video failed, exit code");
}

bool VideoEncoder::EncodeCover(const fs::path& photo, uint32_t frame_rate,
                               const fs::path& segment) const {
  return Encode(photo, frame_rate, segment, "Generate cover segment failed, exit code") ==
         EncoderRun::kDone;
}

bool VideoEncoder::MakeThumbnail(const fs::path& photo, const fs::path& thumbnail,
                                 const fs::path& log) const {
  if (!Available()) return false;
  auto output = Output(thumbnail);
  if (!output) return false;
  utils::SafeExec command = Ffmpeg();
  for (const char* argument : {"-threads", "1", "-y", "-i", photo.c_str(), "-filter:v",
                               "crop=1200:900:390:180,scale=120:90"}) {
    command.AddArg(argument);
  }
  command.AddArg(thumbnail.filename()).SetWorkingDir(output->Fd());
  command.SetTimeout(programs_.frame_limit_ms);
  NewLog(command, log);
  return Run(command, "Generate thumbnail failed, exit code", "Execute fatal error") ==
             EncoderRun::kDone &&
         HasContent(*output, thumbnail) && PutInPlace(*output, thumbnail);
}

bool VideoEncoder::Join(const fs::path& list, const utils::PrivateDirectory& output,
                        const fs::path& log, size_t frames) const {
  if (!Available()) return false;
  ::unlinkat(output.Fd(), kProgressName, 0);
  utils::SafeExec command = Ffmpeg();
  for (const char* argument : {"-y", "-f", "concat", "-safe", "0", "-i", list.c_str(), "-c", "copy",
                               "-progress", kProgressName, kFilmName}) {
    command.AddArg(argument);
  }
  command.SetWorkingDir(output.Fd())
      .SetTimeout(LimitFor(programs_.join_limit_ms, kJoinFrameMs, frames));
  NewLog(command, log);
  return Run(command, "Generate video failed, exit code", "Generate video fatal error") ==
         EncoderRun::kDone;
}

EncoderRun VideoEncoder::Check(const fs::path& video, const fs::path& log, size_t frames) const {
  if (!Available()) return EncoderRun::kNotRun;
  if (!HasContent(video)) return EncoderRun::kFailed;
  utils::SafeExec command = Ffmpeg();
  for (const char* argument : {"-v", "error", "-i", video.c_str(), "-f", "null", "-"})
    command.AddArg(argument);
  command.SetTimeout(LimitFor(programs_.join_limit_ms, kCheckFrameMs, frames));
  NewLog(command, log);
  const EncoderRun run = Run(command, "Check video failed, exit code", "Check video fatal error");
  // What cannot be decoded is reported without a failing status.
  return run == EncoderRun::kDone && HasContent(log) ? EncoderRun::kFailed : run;
}

std::optional<size_t> VideoEncoder::FrameCount(const fs::path& video) const {
  utils::SafeExec command(programs_.ffprobe);
  for (const char* argument : {"-v", "error", "-show_entries", "stream=nb_frames", "-of",
                               "default=noprint_wrappers=1:nokey=1", video.c_str()}) {
    command.AddArg(argument);
  }
  try {
    const auto result =
        command.SetIdlePriority().SetTimeout(kProbeLimitMs).SetOutputLimit(kProbeOutput).Execute();
    const std::string text = Trimmed(result.standard_output);
    size_t frames = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), frames);
    if (result.success && parsed.ec == std::errc{}) return frames;
  } catch (const utils::SafeExecException& exception) {
    VLOG_ERROR(kTag, "Count frames fatal error: {}", exception.what());
  }
  return std::nullopt;
}

std::string VideoEncoder::Duration(const fs::path& video) const {
  std::error_code error;
  if (!fs::exists(video, error)) {
    VLOG_ERROR(kTag, "Get video duration failed, {} is not exist.", video.string());
    return kNoDuration;
  }
  utils::SafeExec command(programs_.ffprobe);
  for (const char* argument : {"-v", "error", "-show_entries", "format=duration", "-of",
                               "default=noprint_wrappers=1:nokey=1", video.c_str()}) {
    command.AddArg(argument);
  }
  VLOG_INFO(kTag, "Get video duration, command is {}", command.ToString());
  std::string problem = "not a number of seconds";
  try {
    const auto result =
        command.SetIdlePriority().SetTimeout(kProbeLimitMs).SetOutputLimit(kProbeOutput).Execute();
    const std::string seconds = Trimmed(result.standard_output);
    if (result.success) {
      VLOG_INFO(kTag, "Video duration is {}", utils::LogText(seconds));
      if (const auto duration = AsMinutes(seconds)) return *duration;
    } else {
      problem = fmt::format("exit code {}", result.exit_code);
    }
  } catch (const utils::SafeExecException& exception) {
    problem = exception.what();
  }
  VLOG_ERROR(kTag, "Get video duration failed, reason: {}", problem);
  return kNoDuration;
}

}  // namespace varnel::service
