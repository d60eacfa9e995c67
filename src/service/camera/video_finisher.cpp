#include "service/camera/video_finisher.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "service/camera/base64_file.h"
#include "service/camera/generation_progress.h"
#include "service/camera/segment_list.h"
#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "TLP";
constexpr size_t kMaxProgressBytes = size_t{64} << 20U;
constexpr size_t kMaxPhotoBytes = size_t{64} << 20U;
constexpr mode_t kVideoMode = 0644;

uintmax_t SizeOf(const fs::path& file) {
  std::error_code error;
  const uintmax_t size = fs::file_size(file, error);
  return error ? 0 : size;
}

int64_t SecondsOf(utils::Clock::WallTime time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

std::string LocalDate(int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  localtime_r(&time, &local);
  return fmt::format("{:04}-{:02}-{:02}", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
}

long SecondsBetween(utils::Clock::TimePoint start, utils::Clock::TimePoint end) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(end - start).count());
}

}  // namespace

/// The right to run the encoder, until its end.
class SegmentEncoder::Turn {
 public:
  Turn(SegmentEncoder& owner, Urgency urgency) : owner_(owner) {
    std::unique_lock lock(owner_.mutex_);
    const bool printing = urgency == Urgency::kPrinting;
    if (printing) ++owner_.printing_waits_;
    owner_.free_.wait(lock,
                      [&] { return !owner_.busy_ && (printing || owner_.printing_waits_ == 0); });
    if (printing) --owner_.printing_waits_;
    owner_.busy_ = true;
  }
  ~Turn() {
    const std::lock_guard lock(owner_.mutex_);
    owner_.busy_ = false;
    owner_.free_.notify_all();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  SegmentEncoder& owner_;
};

EncoderRun SegmentEncoder::EncodeInTurn(const TimelapseInstance& instance, uint32_t number) {
  const fs::path segment = instance.Segment(number);
  EncoderRun run = EncoderRun::kDone;
  // A segment that is there was encoded before an interruption: it is put in place when complete.
  if (SizeOf(segment) == 0)
    run = encoder_.EncodeSegment(instance.Photo(number), instance.Settings().frame_rate, segment);
  const uintmax_t size = SizeOf(segment);
  if (size == 0) {
    VLOG_ERROR(kTag, "Take photo: segment file '{}' invalid (size: {}), skip recording.",
               segment.string(), size);
    return run;
  }
  if (const std::error_code error = AppendSegment(instance.SegmentList(), segment)) {
    VLOG_ERROR(kTag, "Take photo: segment file '{}' cannot be recorded: {}", segment.string(),
               error.message());
  }
  return run;
}

void SegmentEncoder::Encode(const TimelapseInstance& instance, uint32_t number) {
  const Turn turn(*this, Urgency::kPrinting);
  (void)EncodeInTurn(instance, number);
}

bool SegmentEncoder::EncodeRest(const TimelapseInstance& instance) {
  for (const uint32_t number : instance.PhotosToEncode()) {
    const Turn turn(*this, Urgency::kFinishing);
    if (EncodeInTurn(instance, number) == EncoderRun::kTimedOut) return false;
  }
  return true;
}

bool SegmentEncoder::EncodeCover(const TimelapseInstance& instance) {
  const Turn turn(*this, Urgency::kFinishing);
  return SizeOf(instance.CoverSegment()) > 0 ||
         encoder_.EncodeCover(instance.CoverPhoto(), instance.Settings().frame_rate,
                              instance.CoverSegment());
}

bool SegmentEncoder::MakeThumbnail(const TimelapseInstance& instance) {
  const Turn turn(*this, Urgency::kFinishing);
  return encoder_.MakeThumbnail(instance.CoverPhoto(), instance.Thumbnail(),
                                instance.Log("gen_thumbnail.log"));
}

void SegmentEncoder::Mend(const TimelapseInstance& instance, uint32_t number) {
  const Turn turn(*this, Urgency::kFinishing);
  const fs::path segment = instance.Segment(number);
  const auto plays = [&] { return encoder_.Check(segment, instance.Log("check_video.log"), 1); };
  if (plays()) return;
  (void)encoder_.EncodeSegment(instance.Photo(number), instance.Settings().frame_rate, segment);
  std::error_code error;
  if (!plays()) fs::remove(segment, error);
}

VideoFinisher::VideoFinisher(const VideoEncoder& encoder, SegmentEncoder& segments,
                             const TimelapseStore& store, NotifyClients notify, utils::Clock& clock)
    : encoder_(encoder),
      segments_(segments),
      store_(store),
      notify_(std::move(notify)),
      clock_(clock) {}

bool VideoFinisher::MakeCover(const TimelapseInstance& instance) {
  if (SizeOf(instance.CoverPhoto()) > 0) {
    VLOG_INFO(kTag, "The first photo is already exist, do nothing.");
    return segments_.EncodeCover(instance);
  }
  const std::vector<uint32_t> photos = instance.Photos();
  const auto last = photos.empty()
                        ? std::nullopt
                        : utils::ReadSmallFile(instance.Photo(photos.back()), kMaxPhotoBytes);
  if (!last || last->empty()) {
    VLOG_ERROR(kTag, "The last photo does not exist.");
    return false;
  }
  if (const std::error_code error = utils::WriteFileAtomically(instance.CoverPhoto(), *last)) {
    VLOG_ERROR(kTag, "The cover photo cannot be written: {}", error.message());
    return false;
  }
  return segments_.EncodeCover(instance);
}

size_t VideoFinisher::ListSegments(const TimelapseInstance& instance) const {
  std::vector<fs::path> all;
  if (SizeOf(instance.CoverSegment()) > 0) {
    all.push_back(instance.CoverSegment());
  } else {
    VLOG_ERROR(kTag, "Generate video: cover segment '{}' invalid, skip.",
               instance.CoverSegment().string());
  }
  for (const uint32_t number : instance.ListedSegments()) {
    const fs::path segment = instance.Segment(number);
    if (SizeOf(segment) > 0) {
      all.push_back(segment);
    } else {
      VLOG_ERROR(kTag, "Generate video: segment '{}' invalid, skip.", segment.string());
    }
  }
  if (all.empty()) return 0;
  if (const std::error_code error = WriteSegmentList(instance.AllSegmentsList(), all)) {
    VLOG_ERROR(kTag, "Copy all segment file failed, reason: {}", error.message());
    return 0;
  }
  return all.size();
}

bool VideoFinisher::TryJoin(const TimelapseInstance& instance, const Film& film) const {
  std::error_code error;
  auto output = utils::ReplacementFile::Create(film.path, kVideoMode, error);
  if (!output) {
    VLOG_ERROR(kTag, "{} cannot be written: {}", film.path.string(), error.message());
    return false;
  }
  const auto start = clock_.Now();
  if (!encoder_.Join(instance.AllSegmentsList(), instance.Progress(), output->TemporaryPath(),
                     instance.Log("gen_video.log"), film.frames)) {
    return false;
  }
  // A segment that cannot be opened ends the film there, and all the same the run is a success.
  const int joined_frames = LastProgressFrame(
      utils::ReadSmallFile(instance.Progress(), kMaxProgressBytes).value_or(std::string()));
  if (joined_frames < 0 || static_cast<size_t>(joined_frames) < film.frames) {
    VLOG_ERROR(kTag, "Generate video: {} of {} frames were joined", joined_frames, film.frames);
    return false;
  }
  const auto joined = clock_.Now();
  if (!encoder_.Check(output->TemporaryPath(), instance.Log("check_video.log"), film.frames))
    return false;
  error = output->Commit();
  if (error) {
    VLOG_ERROR(kTag, "{} cannot be written: {}", film.path.string(), error.message());
    return false;
  }
  VLOG_INFO(kTag, "Generate video and check success, time consumption {}s and {}s.",
            SecondsBetween(start, joined), SecondsBetween(joined, clock_.Now()));
  return true;
}

bool VideoFinisher::MendSegments(const TimelapseInstance& instance, Film& film) const {
  for (const uint32_t number : instance.ListedSegments())
    if (SizeOf(instance.Segment(number)) > 0) segments_.Mend(instance, number);
  film.frames = ListSegments(instance);
  film.path = instance.Video(film.frames);
  return film.frames > 0;
}

bool VideoFinisher::JoinAndCheck(const TimelapseInstance& instance, Film& film) const {
  film.path = instance.Video(film.frames);
  const GenerationProgress progress(
      instance.Progress(), film.frames, [this](int percent) { NotifyProgress(percent); }, clock_);
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    if (attempt == kAttempts && !MendSegments(instance, film)) return false;
    if (TryJoin(instance, film)) return true;
    VLOG_WARN(kTag, "The video generation might have failed, try {} time.", attempt);
  }
  return false;
}

json VideoFinisher::RecordOf(const TimelapseInstance& instance, const Film& film) const {
  const int64_t now = SecondsOf(clock_.WallNow());
  return {{"date_index", instance.Index()},
          {"gcode_name", instance.Settings().gcode_name},
          {"gcode_path", instance.Settings().gcode_path},
          {"timelapse_dir", instance.Directory().string()},
          {"video_path", film.path.string()},
          {"thumbnail_path", instance.Thumbnail().string()},
          {"generate_date", LocalDate(now)},
          {"unix_timestamp_s", now},
          {"video_duration", encoder_.Duration(film.path)}};
}

void VideoFinisher::NotifyProgress(int percent) const {
  (void)notify_("notify_camera_generate_video_progress",
                {{"state", "generating"}, {"percent", percent}});
}

void VideoFinisher::NotifyCompleted(const json& params) const {
  constexpr const char* kMethod = "notify_camera_generate_video_completed";
  if (const int status = notify_(kMethod, params); status != 0)
    VLOG_ERROR(kTag, "Send {} error, ret = {}", kMethod, status);
}

std::string VideoFinisher::Publish(const json& record) const {
  std::string problem;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    problem = store_.Publish(record);
    if (problem.empty()) break;
    VLOG_ERROR(kTag, "Add new video failed, reason: {}", problem);
  }
  return problem;
}

std::string VideoFinisher::Make(TimelapseInstance& instance) {
  std::error_code error;
  if (!fs::is_directory(instance.Directory(), error)) {
    if (error && error != std::errc::no_such_file_or_directory)
      VLOG_ERROR(kTag, "Generate video: check working directory failed: {}", error.message());
    VLOG_ERROR(kTag, "Working directory {} is not exists.", instance.Directory().string());
    return "the working directory is gone";
  }
  if (!segments_.EncodeRest(instance)) return "the encoder does not end";
  (void)MakeCover(instance);
  Film film;
  film.frames = ListSegments(instance);
  if (film.frames == 0) return "there is no segment";
  if (!segments_.MakeThumbnail(instance) ||
      !WriteBase64(instance.Thumbnail(), instance.ThumbnailBase64())) {
    VLOG_WARN(kTag, "The film of {} has no thumbnail", instance.Index());
  }
  if (!JoinAndCheck(instance, film)) return "the video could not be generated";
  const json record = RecordOf(instance, film);
  if (std::string problem = Publish(record); !problem.empty()) return problem;
  NotifyCompleted({{"state", "success"},
                   {"date_index", instance.Index()},
                   {"gcode_name", instance.Settings().gcode_name},
                   {"video_url", kWebUrl + VideoLinkName(instance.Index())},
                   {"thumbnail_path", kWebUrl + ThumbnailLinkName(instance.Index())},
                   {"video_duration", record["video_duration"]}});
  // The client may have deleted it by now.
  if (!instance.RecordState(TimelapseState::kFinished)) return {};
  instance.RemoveTemporaryFiles();
  VLOG_INFO(kTag, "Generate video completed.");
  return {};
}

bool VideoFinisher::Finish(TimelapseInstance& instance) {
  if (instance.State() != TimelapseState::kGenerating) {
    VLOG_WARN(kTag,
              "Finish timelapse: {} is not an existing instance or state is not 'GENERATING', do "
              "nothing.",
              instance.Index());
    return false;
  }
  VLOG_INFO(kTag, "Timelapse {}: receive 'Finish' command.", instance.Index());
  std::string problem;
  try {
    problem = Make(instance);
  } catch (const std::exception& error) {
    problem = utils::LogText(error.what());
  }
  if (problem.empty()) return instance.State() == TimelapseState::kFinished;
  VLOG_ERROR(kTag, "The film of {} was not made: {}", instance.Index(), problem);
  NotifyCompleted({{"state", "failed"}, {"date_index", instance.Index()}, {"message", problem}});
  return false;
}

}  // namespace varnel::service
