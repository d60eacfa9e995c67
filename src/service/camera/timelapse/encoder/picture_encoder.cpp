#include "service/camera/timelapse/encoder/picture_encoder.h"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <system_error>

#include "utils/free_space.h"
#include "utils/log.h"
#include "utils/private_directory.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr mode_t kFileMode = 0644;
constexpr std::chrono::minutes kProcessorTime{10};
/// What one run writes besides a frame.
constexpr uint64_t kOverhead = uint64_t{64} << 10U;
/// A cut output is not longer than this away from the end of the disk.
constexpr uint64_t kDiskEnd = uint64_t{8} << 10U;

/// One picture that becomes another file.
struct Picture {
  const fs::path& source;
  const fs::path& target;
  RunTexts texts;
  fs::path log;

  /// An encoded frame may be larger than the photo.
  uint64_t Room() const { return 2 * SizeOfFile(source) + kOverhead; }
};

EncoderRun ReportUnwritable(const fs::path& target, const std::error_code& error) {
  VLOG_ERROR(kTag, "{} cannot be written: {}", target.string(), error.message());
  return IsShortage(error) ? EncoderRun::kShortage : EncoderRun::kNotRun;
}

EncoderRun PutInPlace(const utils::PrivateDirectory& output, const fs::path& target) {
  const std::string name = target.filename();
  const std::error_code error = output.Publish(name, name, kFileMode);
  return error ? ReportUnwritable(target, error) : EncoderRun::kDone;
}

/// The command writes to the target's name in a place that nobody else can reach, not even a run
/// that a killed daemon left behind.
EncoderRun Run(const Ffmpeg& ffmpeg, utils::SafeExec& command, const Picture& picture) {
  const fs::path directory = picture.target.parent_path();
  std::error_code error;
  const auto output = utils::PrivateDirectory::Create(directory, error);
  if (!output) return ReportUnwritable(picture.target, error);
  command.AddArg(picture.target.filename()).SetWorkingDir(output->Fd());
  const EncoderRun run = RunEncoder(command, picture.texts, picture.log).run;
  // What there is of the output still takes its room.
  if (run == EncoderRun::kFailed && !ffmpeg.HasRoom(directory, picture.Room()))
    return EncoderRun::kShortage;
  if (run != EncoderRun::kDone) return run;
  // On a full disk the output is empty or cut, and the run a success.
  const uintmax_t size = SizeOfFile(output->PathOf(picture.target.filename()));
  if (size == 0 || !utils::EnoughFreeSpace(directory, kDiskEnd)) return EncoderRun::kShortage;
  return PutInPlace(*output, picture.target);
}

EncoderRun RunWithRoom(const Ffmpeg& ffmpeg, utils::SafeExec& command, const Picture& picture) {
  if (!ffmpeg.Available()) return EncoderRun::kNotRun;
  if (!ffmpeg.HasRoom(picture.target.parent_path(), picture.Room())) {
    VLOG_ERROR(kTag, "There is no room for {}, it waits", picture.target.string());
    return EncoderRun::kShortage;
  }
  return Run(ffmpeg, command, picture);
}

EncoderRun Encode(const Ffmpeg& ffmpeg, const Picture& picture, uint32_t frame_rate) {
  utils::SafeExec command = ffmpeg.Command(kProcessorTime);
  const std::string rate = std::to_string(frame_rate);
  for (const char* argument : {"-threads", "1", "-y", "-f", "image2", "-r", rate.c_str(), "-i",
                               picture.source.c_str(), "-c:v", "libx264", "-pix_fmt", "yuv420p",
                               "-profile:v", "high", "-crf", "18", "-preset", "veryfast"}) {
    command.AddArg(argument);
  }
  return RunWithRoom(ffmpeg, command, picture);
}

}  // namespace

EncoderRun EncodeSegment(const Ffmpeg& ffmpeg, const fs::path& photo, uint32_t frame_rate,
                         const fs::path& segment) {
  constexpr RunTexts kTexts{"Generate segment video failed, exit code", "Execute fatal error"};
  return Encode(ffmpeg, {photo, segment, kTexts, {}}, frame_rate);
}

EncoderRun EncodeCover(const Ffmpeg& ffmpeg, const fs::path& photo, uint32_t frame_rate,
                       const fs::path& segment) {
  constexpr RunTexts kTexts{"Generate cover segment failed, exit code", "Execute fatal error"};
  return Encode(ffmpeg, {photo, segment, kTexts, {}}, frame_rate);
}

EncoderRun MakeThumbnail(const Ffmpeg& ffmpeg, const fs::path& photo, const fs::path& thumbnail,
                         const fs::path& log) {
  constexpr RunTexts kTexts{"Generate thumbnail failed, exit code", "Execute fatal error"};
  utils::SafeExec command = ffmpeg.Command(kProcessorTime);
  for (const char* argument : {"-threads", "1", "-y", "-i", photo.c_str(), "-filter:v",
                               "crop=1200:900:390:180,scale=120:90"}) {
    command.AddArg(argument);
  }
  return RunWithRoom(ffmpeg, command, {photo, thumbnail, kTexts, log});
}

}  // namespace varnel::service
