#include "service/camera/timelapse/films/segment_work.h"

#include <system_error>
#include <vector>

#include "service/camera/timelapse/disk/segment_list.h"
#include "service/camera/timelapse/encoder/picture_encoder.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
/// Runs in a row that end so; a single photo may be what the encoder hangs on.
constexpr int kMostInVain = 1;

EncoderRun List(const WorkDirectory& directory, const fs::path& segment) {
  const std::error_code error = AppendSegment(directory.SegmentList(), segment);
  if (!error) return EncoderRun::kDone;
  VLOG_ERROR(kTag, "Take photo: segment file '{}' cannot be recorded: {}", segment.string(),
             error.message());
  return IsShortage(error) ? EncoderRun::kShortage : EncoderRun::kNotRun;
}

EncoderRun EncodeOne(const Ffmpeg& ffmpeg, const WorkDirectory& directory, uint32_t number) {
  const fs::path segment = directory.Segment(number);
  // A segment that is there was encoded before an interruption: it is put in place when complete.
  if (SizeOfFile(segment) > 0) return List(directory, segment);
  const EncoderRun run =
      EncodeSegment(ffmpeg, directory.Photo(number), directory.Settings().frame_rate, segment);
  if (run == EncoderRun::kDone) return List(directory, segment);
  if (directory.Exists()) {
    VLOG_ERROR(kTag, "Take photo: segment file '{}' invalid (size: {}), skip recording.",
               segment.string(), 0);
  }
  return run;
}

}  // namespace

WorkEnd EncodeMissing(const Ffmpeg& ffmpeg, const WorkDirectory& directory, KnownPhotos& known,
                      const GoOn& go_on) {
  int in_vain = 0;
  bool some_not_run = false;
  const std::vector<uint32_t> photos = directory.PhotosToEncode(known.settled);
  for (const uint32_t number : photos) {
    if (known.bad.contains(number)) continue;
    if (!go_on()) return WorkEnd::kInterrupted;
    const EncoderRun run = EncodeOne(ffmpeg, directory, number);
    if (run == EncoderRun::kShortage) return WorkEnd::kShortage;
    if (run == EncoderRun::kFailed || run == EncoderRun::kStill) known.bad.insert(number);
    some_not_run = some_not_run || run == EncoderRun::kNotRun;
    const bool vain = run == EncoderRun::kStill || run == EncoderRun::kNotRun;
    in_vain = vain ? in_vain + 1 : 0;
    if (in_vain > kMostInVain) return WorkEnd::kFailed;
  }
  if (some_not_run) return WorkEnd::kFailed;
  if (!photos.empty()) known.settled = photos.back();
  return WorkEnd::kDone;
}

}  // namespace varnel::service
