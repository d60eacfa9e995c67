#include "service/camera/timelapse/films/film_maker.h"

#include <sys/stat.h>

#include <chrono>
#include <optional>
#include <system_error>
#include <utility>

#include "service/camera/timelapse/disk/base64_file.h"
#include "service/camera/timelapse/encoder/film_programs.h"
#include "service/camera/timelapse/encoder/picture_encoder.h"
#include "service/camera/timelapse/films/film_record.h"
#include "utils/child_registry.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "TLP";
constexpr mode_t kVideoMode = 0644;
/// Where less is left, what failed failed for want of it.
constexpr uint64_t kSomeRoom = uint64_t{64} << 10U;

int64_t SecondsOf(utils::Clock::WallTime time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

long SecondsBetween(utils::Clock::TimePoint start, utils::Clock::TimePoint end) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(end - start).count());
}

EncoderRun ReportUnwritable(const fs::path& film, const std::error_code& error) {
  VLOG_ERROR(kTag, "{} cannot be written: {}", film.string(), error.message());
  return IsShortage(error) ? EncoderRun::kShortage : EncoderRun::kNotRun;
}

FilmAttempt NoRoom() {
  return {WorkEnd::kShortage, "there is no room for the film"};
}

FilmAttempt Ended(WorkEnd end, const char* failure) {
  if (end == WorkEnd::kDone) return {};
  if (end == WorkEnd::kShortage) return NoRoom();
  return {end, failure};
}

FilmAttempt Ended(EncoderRun run, const char* failure) {
  if (run == EncoderRun::kDone) return {};
  return Ended(run == EncoderRun::kShortage ? WorkEnd::kShortage : WorkEnd::kFailed, failure);
}

/// The directory is there and can be looked at.
bool CheckDirectory(const WorkDirectory& directory) {
  std::error_code error;
  if (fs::is_directory(directory.Path(), error)) return true;
  if (error && error != std::errc::no_such_file_or_directory)
    VLOG_ERROR(kTag, "Generate video: check working directory failed: {}", error.message());
  VLOG_ERROR(kTag, "Working directory {} is not exists.", directory.Path().string());
  return false;
}

fs::path VideoOf(const json& record) {
  const auto path = record.find("video_path");
  return path != record.end() && path->is_string() ? path->get<std::string>() : "";
}

/// Whatever a changed record says: a film that is there, in the directory that is its own.
bool IsFilmOf(const WorkDirectory& directory, const fs::path& video) {
  std::error_code error;
  return video.parent_path() == directory.Path() && fs::is_regular_file(video, error) &&
         SizeOfFile(video) > 0;
}

/// After many failures the film does without what its own fault keeps from being made.
bool DoWithout(const WorkDirectory& directory, EncoderRun run) {
  return run == EncoderRun::kFailed && directory.Failures() >= FilmMaker::kManyFailures;
}

}  // namespace

FilmMaker::FilmMaker(const Ffmpeg& ffmpeg, const FilmStore& store, NotifyClients notify,
                     utils::Clock& clock)
    : ffmpeg_(ffmpeg), store_(store), notify_(std::move(notify)), clock_(clock) {}

FilmAttempt FilmMaker::Make(WorkDirectory& directory, PlayingSegments& playing,
                            const GoOn& go_on) const {
  VLOG_INFO(kTag, "Timelapse {}: receive 'Finish' command.", directory.Index());
  FilmAttempt attempt;
  try {
    attempt = Generate(directory, playing, go_on);
  } catch (const std::exception& error) {
    attempt = {WorkEnd::kFailed, utils::LogText(error.what())};
  }
  if (!attempt.Done() && attempt.end != WorkEnd::kInterrupted)
    VLOG_ERROR(kTag, "The film of {} was not made: {}", directory.Index(), attempt.problem);
  return attempt;
}

FilmAttempt FilmMaker::Generate(WorkDirectory& directory, PlayingSegments& playing,
                                const GoOn& go_on) const {
  if (!CheckDirectory(directory)) return {WorkEnd::kFailed, "the working directory is gone"};
  const auto unlisted = store_.Unlisted({directory.Index()});
  if (!unlisted) return {WorkEnd::kFailed, "the description file cannot be read"};
  if (unlisted->empty()) {
    const auto record = store_.Find(directory.Index());
    if (!record) return {WorkEnd::kFailed, "the description file cannot be read"};
    // Interrupted after it was listed: clients may know it already.
    if (const fs::path listed = VideoOf(*record); IsFilmOf(directory, listed))
      return Conclude(directory, listed);
  }
  Film film{playing};
  FilmAttempt attempt = MakeVideo(directory, film, go_on);
  if (!attempt.Done()) return attempt;
  const json record = FilmRecord(directory, film.path, VideoDuration(ffmpeg_.Programs(), film.path),
                                 SecondsOf(clock_.WallNow()));
  // Then the duration is not known for want of a program.
  if (utils::ChildStart().Refused()) return {WorkEnd::kInterrupted, {}};
  attempt = Publish(record);
  if (!attempt.Done()) return attempt;
  NotifyCompleted(FilmNotice(record));
  return Conclude(directory, film.path);
}

FilmAttempt FilmMaker::MakeVideo(const WorkDirectory& directory, Film& film,
                                 const GoOn& go_on) const {
  GenerationProgress progress(
      directory.Progress(), [this](int percent) { NotifyProgress(percent); }, clock_);
  FilmAttempt attempt =
      Ended(EncodeMissing(ffmpeg_, directory, film.photos, go_on), "the encoder does not work");
  if (attempt.Done()) attempt = MakeCover(directory, film);
  if (attempt.Done()) attempt = List(directory, film);
  if (attempt.Done()) attempt = MakeThumbnail(directory);
  if (attempt.Done()) attempt = JoinAndCheck(directory, film, progress, go_on);
  return attempt;
}

FilmAttempt FilmMaker::MakeCover(const WorkDirectory& directory, const Film& film) const {
  const EncoderRun run = service::MakeCover(ffmpeg_, directory, film.photos.bad);
  return DoWithout(directory, run) ? FilmAttempt() : Ended(run, "the cover could not be made");
}

FilmAttempt FilmMaker::MakeThumbnail(const WorkDirectory& directory) const {
  EncoderRun run = EncoderRun::kDone;
  if (SizeOfFile(directory.Thumbnail()) == 0) {
    run = service::MakeThumbnail(ffmpeg_, directory.CoverPhoto(), directory.Thumbnail(),
                                 directory.Log("gen_thumbnail.log"));
  }
  if (run == EncoderRun::kDone &&
      !WriteBase64(directory.Thumbnail(), directory.ThumbnailBase64())) {
    run =
        ffmpeg_.HasRoom(directory.Path(), kSomeRoom) ? EncoderRun::kFailed : EncoderRun::kShortage;
  }
  if (!DoWithout(directory, run)) return Ended(run, "the thumbnail could not be made");
  VLOG_WARN(kTag, "The film of {} has no thumbnail", directory.Index());
  return {};
}

FilmAttempt FilmMaker::List(const WorkDirectory& directory, Film& film) const {
  FilmAttempt attempt =
      Ended(ListAllSegments(directory, film.left_out, film.parts), "there is no segment");
  film.path = directory.Video(film.parts.frames);
  // Joined, the segments take no more room than before.
  if (!attempt.Done() || ffmpeg_.HasRoom(directory.Path(), film.parts.bytes)) return attempt;
  VLOG_ERROR(kTag, "There is no room for the film {}, it is not made", film.path.string());
  return NoRoom();
}

EncoderRun FilmMaker::TryJoin(const WorkDirectory& directory, const Film& film,
                              const utils::PrivateDirectory& output) const {
  const fs::path joined_film = output.PathOf(kJoinedFilm);
  const auto start = clock_.Now();
  EncoderRun run = JoinSegments(ffmpeg_, directory.AllSegmentsList(), output,
                                directory.Log("gen_video.log"), film.parts.frames);
  if (run != EncoderRun::kDone) return run;
  const auto joined = clock_.Now();
  run = CheckVideo(ffmpeg_, joined_film, directory.Log("check_video.log"), film.parts.frames);
  if (run != EncoderRun::kDone) return run;
  if (const auto error = output.Publish(kJoinedFilm, film.path.filename(), kVideoMode))
    return ReportUnwritable(film.path, error);
  VLOG_INFO(kTag, "Generate video and check success, time consumption {}s and {}s.",
            SecondsBetween(start, joined), SecondsBetween(joined, clock_.Now()));
  return EncoderRun::kDone;
}

FilmAttempt FilmMaker::Mend(const WorkDirectory& directory, Film& film, const GoOn& go_on) const {
  FilmAttempt attempt = Ended(MendSegments(ffmpeg_, directory, film.left_out, film.playing, go_on),
                              "the video could not be generated");
  return attempt.Done() ? List(directory, film) : attempt;
}

FilmAttempt FilmMaker::JoinAndCheck(const WorkDirectory& directory, Film& film,
                                    GenerationProgress& progress, const GoOn& go_on) const {
  std::error_code error;
  const auto output = utils::PrivateDirectory::Create(directory.Path(), error);
  if (!output) return Ended(ReportUnwritable(film.path, error), "the video could not be generated");
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    if (attempt == kAttempts) {
      if (FilmAttempt mended = Mend(directory, film, go_on); !mended.Done()) return mended;
    }
    progress.Follow(output->PathOf(kJoinProgress), film.parts.frames);
    const EncoderRun run = TryJoin(directory, film, *output);
    if (run == EncoderRun::kDone) return {};
    VLOG_WARN(kTag, "The video generation might have failed, try {} time.", attempt);
    if (!ffmpeg_.HasRoom(directory.Path(), kSomeRoom)) return NoRoom();
    if (!go_on()) return {WorkEnd::kInterrupted, {}};
  }
  return {WorkEnd::kFailed, "the video could not be generated"};
}

FilmAttempt FilmMaker::Publish(const json& record) const {
  const fs::path video = record["video_path"].get<std::string>();
  std::string problem;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    problem = store_.Publish(record);
    std::error_code ignored;
    if (problem.empty() || !fs::exists(video, ignored)) break;
    VLOG_ERROR(kTag, "Add new video failed, reason: {}", problem);
  }
  if (problem.empty()) return {};
  const bool room = ffmpeg_.HasRoom(video.parent_path(), kSomeRoom);
  return {room ? WorkEnd::kFailed : WorkEnd::kShortage, std::move(problem)};
}

FilmAttempt FilmMaker::Conclude(WorkDirectory& directory, const fs::path& video) const {
  directory.RemoveFilmsBut(video);
  bool recorded = directory.Advance(TimelapseState::kFinished);
  if (recorded || directory.Exists()) directory.RemoveJoined();
  // What the film holds is gone, which may have been in the way.
  if (!recorded) recorded = directory.Advance(TimelapseState::kFinished);
  // The client may have deleted it by now.
  if (!recorded && directory.Exists())
    return {.end = WorkEnd::kFailed, .problem = "the state cannot be recorded", .listed = true};
  VLOG_INFO(kTag, "Generate video completed.");
  return {};
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

void FilmMaker::NotifyFailed(const WorkDirectory& directory, const std::string& problem) const {
  NotifyCompleted({{"state", "failed"}, {"date_index", directory.Index()}, {"message", problem}});
}

void FilmMaker::ListAgain(const WorkDirectory& directory) const {
  const fs::path video = directory.FinishedVideo();
  struct stat info {};
  if (video.empty() || ::stat(video.c_str(), &info) != 0) return;
  const std::string duration = VideoDuration(ffmpeg_.Programs(), video);
  const std::string problem =
      store_.Publish(FilmRecord(directory, video, duration, info.st_mtim.tv_sec));
  if (problem.empty()) {
    VLOG_WARN(kTag, "The film {} had no record and is listed again", directory.Index());
  } else {
    VLOG_ERROR(kTag, "Add new video failed, reason: {}", problem);
  }
}

}  // namespace varnel::service
