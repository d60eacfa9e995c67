#include <unistd.h>

#include <chrono>
#include <system_error>

#include "service/camera/timelapse/encoder/film_programs.h"
#include "service/camera/timelapse/encoder/generation_progress.h"
#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr size_t kMaxProgressBytes = size_t{64} << 20U;
constexpr std::chrono::minutes kBaseTime{10};
constexpr size_t kFramesPerSecond = 20;

size_t FramesIn(const fs::path& progress) {
  const int frames =
      LastProgressFrame(utils::ReadSmallFile(progress, kMaxProgressBytes).value_or(""));
  return frames < 0 ? 0 : static_cast<size_t>(frames);
}

}  // namespace

EncoderRun JoinSegments(const Ffmpeg& ffmpeg, const fs::path& list,
                        const utils::PrivateDirectory& output, const fs::path& log, size_t frames) {
  constexpr RunTexts kTexts{"Generate video failed, exit code", "Generate video fatal error"};
  if (!ffmpeg.Available()) return EncoderRun::kNotRun;
  const fs::path progress = output.PathOf(kJoinProgress);
  ::unlinkat(output.Fd(), kJoinProgress, 0);
  utils::SafeExec command = ffmpeg.Command(
      kBaseTime + std::chrono::seconds(frames / kFramesPerSecond), progress.string());
  for (const char* argument : {"-y", "-f", "concat", "-safe", "0", "-i", list.c_str(), "-c", "copy",
                               "-progress", kJoinProgress, kJoinedFilm}) {
    command.AddArg(argument);
  }
  command.SetWorkingDir(output.Fd());
  const EncoderRun run = RunEncoder(command, kTexts, log).run;
  if (run != EncoderRun::kDone) return run;
  const size_t joined = FramesIn(progress);
  if (joined == frames) return EncoderRun::kDone;
  VLOG_ERROR(kTag, "Generate video: {} of {} frames were joined", joined, frames);
  return EncoderRun::kFailed;
}

}  // namespace varnel::service
