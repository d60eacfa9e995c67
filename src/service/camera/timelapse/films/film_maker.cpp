#include "service/camera/timelapse/films/film_maker.h"

#include <fmt/format.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "service/camera/timelapse/disk/base64_file.h"
#include "service/camera/timelapse/disk/segment_list.h"
#include "service/camera/timelapse/encoder/generation_progress.h"
#include "utils/atomic_file.h"
#include "utils/free_space.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "TLP";
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

bool ReportUnwritable(const fs::path& film, const std::error_code& error) {
  VLOG_ERROR(kTag, "{} cannot be written: {}", film.string(), error.message());
  return false;
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

EncoderRun SegmentEncoder::EncodeInTurn(const WorkDirectory& instance, uint32_t number) {
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
    return EncoderRun::kNotRun;
  }
  return run;
}

void SegmentEncoder::Encode(const WorkDirectory& instance, uint32_t number) {
  const Turn turn(*this, Urgency::kPrinting);
  (void)EncodeInTurn(instance, number);
}

bool SegmentEncoder::EncodeRest(const WorkDirectory& instance) {
  int hung = 0;  // runs in a row; a single photo may be what it hangs on
  for (const uint32_t number : instance.PhotosToEncode()) {
    const Turn turn(*this, Urgency::kFinishing);
    const EncoderRun run = EncodeInTurn(instance, number);
    hung = run == EncoderRun::kTimedOut ? hung + 1 : 0;
    if (run == EncoderRun::kNotRun || hung > 1) return false;
  }
  return true;
}

bool SegmentEncoder::EncodeCover(const WorkDirectory& instance) {
  const Turn turn(*this, Urgency::kFinishing);
  return SizeOf(instance.CoverSegment()) > 0 ||
         encoder_.EncodeCover(instance.CoverPhoto(), instance.Settings().frame_rate,
                              instance.CoverSegment());
}

bool SegmentEncoder::MakeThumbnail(const WorkDirectory& instance) {
  const Turn turn(*this, Urgency::kFinishing);
  return encoder_.MakeThumbnail(instance.CoverPhoto(), instance.Thumbnail(),
                                instance.Log("gen_thumbnail.log"));
}

bool SegmentEncoder::Mend(const WorkDirectory& instance, const fs::path& photo,
                          const fs::path& segment) {
  const Turn turn(*this, Urgency::kFinishing);
  const auto check = [&] { return encoder_.Check(segment, instance.Log("check_video.log"), 1); };
  EncoderRun run = check();
  if (run == EncoderRun::kDone) return true;
  if (run != EncoderRun::kFailed) return false;
  run = encoder_.EncodeSegment(photo, instance.Settings().frame_rate, segment);
  if (run == EncoderRun::kDone) run = check();
  if (run != EncoderRun::kFailed) return run == EncoderRun::kDone;
  std::error_code error;
  fs::remove(segment, error);
  return !error;
}

FilmMaker::FilmMaker(const VideoEncoder& encoder, SegmentEncoder& segments, const FilmStore& store,
                     NotifyClients notify, utils::Clock& clock, uint64_t min_free_bytes)
    : encoder_(encoder),
      segments_(segments),
      store_(store),
      notify_(std::move(notify)),
      clock_(clock),
      min_free_bytes_(min_free_bytes) {}

bool FilmMaker::MakeCover(const WorkDirectory& instance) {
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

bool FilmMaker::ListSegments(const WorkDirectory& instance, Film& film) const {
  std::vector<fs::path> all;
  film.segment_bytes = SizeOf(instance.CoverSegment());
  if (film.segment_bytes > 0) {
    all.push_back(instance.CoverSegment());
  } else {
    VLOG_ERROR(kTag, "Generate video: cover segment '{}' invalid, skip.",
               instance.CoverSegment().string());
  }
  for (const uint32_t number : instance.ListedSegments()) {
    const fs::path segment = instance.Segment(number);
    if (const uintmax_t size = SizeOf(segment); size > 0) {
      all.push_back(segment);
      film.segment_bytes += size;
    } else {
      VLOG_ERROR(kTag, "Generate video: segment '{}' invalid, skip.", segment.string());
    }
  }
  film.frames = all.size();
  film.path = instance.Video(film.frames);
  if (all.empty()) return false;
  const std::error_code error = WriteSegmentList(instance.AllSegmentsList(), all);
  if (error) VLOG_ERROR(kTag, "Copy all segment file failed, reason: {}", error.message());
  return !error;
}

bool FilmMaker::HasRoomFor(const Film& film) const {
  // Joined, the segments take no more room than before.
  if (min_free_bytes_ == 0 ||
      utils::EnoughFreeSpace(film.path.parent_path(), min_free_bytes_ + film.segment_bytes)) {
    return true;
  }
  VLOG_ERROR(kTag, "Less than {} MiB would be free with the film {}, it is not made",
             min_free_bytes_ >> 20U, film.path.string());
  return false;
}

bool FilmMaker::TryJoin(const WorkDirectory& instance, const Film& film,
                        const utils::PrivateDirectory& output) const {
  const fs::path joined_film = output.PathOf(VideoEncoder::kFilmName);
  const auto start = clock_.Now();
  if (!encoder_.Join(instance.AllSegmentsList(), output, instance.Log("gen_video.log"),
                     film.frames)) {
    return false;
  }
  // A segment that cannot be opened ends the film there, and all the same the run is a success.
  const std::optional<size_t> frames = encoder_.FrameCount(joined_film);
  if (frames != film.frames) {
    VLOG_ERROR(kTag, "Generate video: {} of {} frames were joined", frames.value_or(0),
               film.frames);
    return false;
  }
  const auto joined = clock_.Now();
  if (encoder_.Check(joined_film, instance.Log("check_video.log"), film.frames) !=
      EncoderRun::kDone) {
    return false;
  }
  const std::error_code error =
      output.Publish(VideoEncoder::kFilmName, film.path.filename(), kVideoMode);
  if (error) return ReportUnwritable(film.path, error);
  VLOG_INFO(kTag, "Generate video and check success, time consumption {}s and {}s.",
            SecondsBetween(start, joined), SecondsBetween(joined, clock_.Now()));
  return true;
}

bool FilmMaker::MendSegments(const WorkDirectory& instance, Film& film) const {
  bool known = SizeOf(instance.CoverSegment()) == 0 ||
               segments_.Mend(instance, instance.CoverPhoto(), instance.CoverSegment());
  for (const uint32_t number : instance.ListedSegments()) {
    const fs::path segment = instance.Segment(number);
    known = known &&
            (SizeOf(segment) == 0 || segments_.Mend(instance, instance.Photo(number), segment));
  }
  return known && ListSegments(instance, film);
}

bool FilmMaker::JoinAndCheck(const WorkDirectory& instance, Film& film) const {
  std::error_code error;
  const auto output = utils::PrivateDirectory::Create(instance.Directory(), error);
  if (!output) return ReportUnwritable(film.path, error);
  const GenerationProgress progress(
      output->PathOf(VideoEncoder::kProgressName), film.frames,
      [this](int percent) { NotifyProgress(percent); }, clock_);
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    if (attempt == kAttempts && !MendSegments(instance, film)) return false;
    if (TryJoin(instance, film, *output)) return true;
    VLOG_WARN(kTag, "The video generation might have failed, try {} time.", attempt);
  }
  return false;
}

json FilmMaker::RecordOf(const WorkDirectory& instance, const Film& film) const {
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

void FilmMaker::NotifyProgress(int percent) const {
  (void)notify_("notify_camera_generate_video_progress",
                {{"state", "generating"}, {"percent", percent}});
}

void FilmMaker::NotifyCompleted(const json& params) const {
  constexpr const char* kMethod = "notify_camera_generate_video_completed";
  if (const int status = notify_(kMethod, params); status != 0)
    VLOG_ERROR(kTag, "Send {} error, ret = {}", kMethod, status);
}

std::string FilmMaker::Publish(const json& record, const Film& film) const {
  std::string problem;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    problem = store_.Publish(record);
    std::error_code ignored;
    if (problem.empty() || !fs::exists(film.path, ignored)) break;
    VLOG_ERROR(kTag, "Add new video failed, reason: {}", problem);
  }
  return problem;
}

std::string FilmMaker::Make(WorkDirectory& instance) {
  std::error_code error;
  if (!fs::is_directory(instance.Directory(), error)) {
    if (error && error != std::errc::no_such_file_or_directory)
      VLOG_ERROR(kTag, "Generate video: check working directory failed: {}", error.message());
    VLOG_ERROR(kTag, "Working directory {} is not exists.", instance.Directory().string());
    return "the working directory is gone";
  }
  if (!segments_.EncodeRest(instance)) return "the encoder does not work";
  (void)MakeCover(instance);
  Film film;
  if (!ListSegments(instance, film)) return "there is no segment";
  if (!HasRoomFor(film)) return "there is no room for the film";
  if (!segments_.MakeThumbnail(instance) ||
      !WriteBase64(instance.Thumbnail(), instance.ThumbnailBase64())) {
    VLOG_WARN(kTag, "The film of {} has no thumbnail", instance.Index());
  }
  if (!JoinAndCheck(instance, film)) return "the video could not be generated";
  const json record = RecordOf(instance, film);
  if (std::string problem = Publish(record, film); !problem.empty()) return problem;
  NotifyCompleted({{"state", "success"},
                   {"date_index", instance.Index()},
                   {"gcode_name", instance.Settings().gcode_name},
                   {"video_url", kWebUrl + VideoLinkName(instance.Index())},
                   {"thumbnail_path", kWebUrl + ThumbnailLinkName(instance.Index())},
                   {"video_duration", record["video_duration"]}});
  // The client may have deleted it by now.
  if (!instance.RecordState(TimelapseState::kFinished)) return {};
  instance.RemoveTemporaryFiles();
  instance.RemoveFilmsBut(film.path);
  VLOG_INFO(kTag, "Generate video completed.");
  return {};
}

bool FilmMaker::Finish(WorkDirectory& instance) {
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
