#include <algorithm>
#include <chrono>
#include <sstream>
#include <system_error>

#include "service/camera/timelapse/encoder/film_programs.h"
#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr std::chrono::minutes kBaseTime{10};
constexpr size_t kLoggedLine = 512;
constexpr mode_t kLogMode = 0600;

/// The first complaint; empty: none.
std::string ComplaintIn(const std::string& said, const std::string& video) {
  std::istringstream lines(said);
  for (std::string line; std::getline(lines, line);)
    if (IsComplaint(line, video)) return line;
  return {};
}

}  // namespace

bool IsComplaint(const std::string& line, const std::string& video) {
  const bool own = line.starts_with('[') && line.find("] ") != std::string::npos;
  return own || line.starts_with(video);
}

EncoderRun CheckVideo(const Ffmpeg& ffmpeg, const fs::path& video, const fs::path& log,
                      size_t frames) {
  constexpr RunTexts kTexts{"Check video failed, exit code", "Check video fatal error"};
  if (!ffmpeg.Available()) return EncoderRun::kNotRun;
  if (SizeOfFile(video) == 0) return EncoderRun::kFailed;
  // Ten seconds of processor time for a frame are more than any board takes.
  utils::SafeExec command = ffmpeg.Command(kBaseTime + std::chrono::seconds(10 * frames));
  for (const char* argument : {"-v", "error", "-i", video.c_str(), "-f", "null", "-"})
    command.AddArg(argument);
  const RunResult result = RunEncoder(command, kTexts);
  // For people: it is no fault of the film that there is no room for it.
  (void)utils::WriteFileAtomically(log, result.standard_output + result.standard_error, kLogMode,
                                   utils::Durability::kCrash);
  if (result.run != EncoderRun::kDone) return result.run;
  // What cannot be decoded is reported without a failing status.
  const std::string complaint = ComplaintIn(result.standard_error, video.string());
  if (complaint.empty()) return EncoderRun::kDone;
  VLOG_ERROR(kTag, "{}", utils::LogText(complaint, kLoggedLine));
  return EncoderRun::kFailed;
}

}  // namespace varnel::service
