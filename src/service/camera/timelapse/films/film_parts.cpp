#include "service/camera/timelapse/films/film_parts.h"

#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "service/camera/timelapse/disk/segment_list.h"
#include "service/camera/timelapse/encoder/film_programs.h"
#include "service/camera/timelapse/encoder/picture_encoder.h"
#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr size_t kMaxPhotoBytes = size_t{64} << 20U;

/// The print's last photo that can be encoded; empty: none.
fs::path LastPhoto(const WorkDirectory& directory, const std::set<uint32_t>& bad) {
  std::vector<uint32_t> photos = directory.Photos();
  while (!photos.empty() && bad.contains(photos.back())) photos.pop_back();
  return photos.empty() ? fs::path() : directory.Photo(photos.back());
}

EncoderRun CopyCover(const WorkDirectory& directory, const std::set<uint32_t>& bad) {
  const fs::path last = LastPhoto(directory, bad);
  const auto photo = last.empty() ? std::nullopt : utils::ReadSmallFile(last, kMaxPhotoBytes);
  if (!photo || photo->empty()) {
    VLOG_ERROR(kTag, "The last photo does not exist.");
    return EncoderRun::kFailed;
  }
  const std::error_code error = utils::WriteFileAtomically(directory.CoverPhoto(), *photo);
  if (!error) return EncoderRun::kDone;
  VLOG_ERROR(kTag, "The cover photo cannot be written: {}", error.message());
  return IsShortage(error) ? EncoderRun::kShortage : EncoderRun::kNotRun;
}

void ReportInvalid(const fs::path& segment) {
  VLOG_ERROR(kTag, "Generate video: segment '{}' invalid, skip.", segment.string());
}

/// A segment and the photo it is made from.
struct Source {
  fs::path photo;
  fs::path segment;
};

std::vector<Source> SegmentsOf(const WorkDirectory& directory) {
  std::vector<Source> sources = {{directory.CoverPhoto(), directory.CoverSegment()}};
  for (const uint32_t number : directory.ListedSegments().value_or(std::vector<uint32_t>()))
    sources.push_back({directory.Photo(number), directory.Segment(number)});
  std::erase_if(sources, [](const Source& one) { return SizeOfFile(one.segment) == 0; });
  return sources;
}

EncoderRun Mend(const Ffmpeg& ffmpeg, const WorkDirectory& directory, const Source& source) {
  const auto check = [&] {
    return CheckVideo(ffmpeg, source.segment, directory.Log("check_video.log"), 1);
  };
  EncoderRun run = check();
  if (run != EncoderRun::kFailed) return run;
  run = EncodeSegment(ffmpeg, source.photo, directory.Settings().frame_rate, source.segment);
  return run == EncoderRun::kDone ? check() : run;
}

}  // namespace

EncoderRun MakeCover(const Ffmpeg& ffmpeg, const WorkDirectory& directory,
                     const std::set<uint32_t>& bad) {
  if (SizeOfFile(directory.CoverPhoto()) > 0) {
    VLOG_INFO(kTag, "The first photo is already exist, do nothing.");
  } else if (const EncoderRun copied = CopyCover(directory, bad); copied != EncoderRun::kDone) {
    return copied;
  }
  if (SizeOfFile(directory.CoverSegment()) > 0) return EncoderRun::kDone;
  return EncodeCover(ffmpeg, directory.CoverPhoto(), directory.Settings().frame_rate,
                     directory.CoverSegment());
}

WorkEnd ListAllSegments(const WorkDirectory& directory, const std::set<fs::path>& left_out,
                        FilmParts& parts) {
  const auto listed = directory.ListedSegments();
  if (!listed) {
    VLOG_ERROR(kTag, "Copy all segment file failed.");
    return WorkEnd::kFailed;
  }
  std::vector<fs::path> all;
  const auto add = [&](const fs::path& segment) {
    const uintmax_t size = left_out.contains(segment) ? 0 : SizeOfFile(segment);
    if (size > 0) all.push_back(segment);
    parts.bytes += size;
    return size > 0;
  };
  parts = {};
  if (!add(directory.CoverSegment())) {
    VLOG_ERROR(kTag, "Generate video: cover segment '{}' invalid, skip.",
               directory.CoverSegment().string());
  }
  for (const uint32_t number : *listed)
    if (!add(directory.Segment(number))) ReportInvalid(directory.Segment(number));
  parts.frames = all.size();
  if (all.empty()) return WorkEnd::kFailed;
  const std::error_code error = WriteSegmentList(directory.AllSegmentsList(), all);
  if (!error) return WorkEnd::kDone;
  VLOG_ERROR(kTag, "Copy all segment file failed, reason: {}", error.message());
  return IsShortage(error) ? WorkEnd::kShortage : WorkEnd::kFailed;
}

WorkEnd MendSegments(const Ffmpeg& ffmpeg, const WorkDirectory& directory,
                     std::set<fs::path>& left_out, std::set<fs::path>& playing, const GoOn& go_on) {
  for (const Source& source : SegmentsOf(directory)) {
    if (playing.contains(source.segment)) continue;
    if (!go_on()) return WorkEnd::kInterrupted;
    switch (Mend(ffmpeg, directory, source)) {
      case EncoderRun::kDone:
        playing.insert(source.segment);
        break;
      case EncoderRun::kFailed:
        left_out.insert(source.segment);
        break;
      case EncoderRun::kShortage:
        return WorkEnd::kShortage;
      case EncoderRun::kStill:
      case EncoderRun::kNotRun:
        return WorkEnd::kFailed;
    }
  }
  return playing.empty() ? WorkEnd::kFailed : WorkEnd::kDone;
}

}  // namespace varnel::service
