#include "service/camera/timelapse/films/timelapse_service.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "service/camera/timelapse_world.h"
#include "support/fake_clock.h"
#include "support/full_disk.h"
#include "support/log_capture.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using test::Eventually;
using testing::ElementsAre;
using testing::IsEmpty;

class TimelapseServiceTest : public testing::Test, public TimelapseWorld {
 protected:
  /// A new time-lapse with that many photos; returns its index.
  std::string Record(TimelapseService& service, int photos) {
    EXPECT_TRUE(service.StartNew({}));
    std::string index = WorkDirectories(paths_).NextIndex();
    for (int i = 0; i < photos; ++i) EXPECT_EQ(service.TakePhoto(), TimelapsePhoto::kTaken);
    return index;
  }
  size_t Completed() {
    size_t count = 0;
    for (const auto& [method, params] : notified_.Items())
      count += method == "notify_camera_generate_video_completed" ? 1 : 0;
    return count;
  }

  /// As nobody who runs as another user could, if we may become one.
  static bool IsReadableByOthers(const fs::path& file) {
    if (::geteuid() != 0) return true;
    const pid_t child = ::fork();
    if (child == 0) {
      const bool changed = ::setresgid(65534, 65534, 65534) == 0 && ::setgroups(0, nullptr) == 0 &&
                           ::setresuid(65534, 65534, 65534) == 0;
      ::_exit(changed && ::access(file.c_str(), R_OK) == 0 ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
  }

  test::LogCapture log_;
};

TEST_F(TimelapseServiceTest, AStoppedTimeLapseBecomesAFilmThatOthersMayRead) {
  fs::permissions(dir_.Path(), fs::perms(0755));
  const mode_t before = ::umask(0077);
  // The programs write where nobody else can plant a link.
  EncodeAs("[ \"$out\" = - ] || [ \"$(stat -c %a .)${out%/*}\" = \"700$out\" ] || exit 1");
  const auto service = Service();
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kNothingRuns);
  const std::string index = Record(*service, 3);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_NE(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_EQ(Film(*service, index), "a3\na1\na2\na3\n") << "the last photo is the cover";
  ::umask(before);
  for (const std::string& link : {VideoLinkName(index), ThumbnailLinkName(index)})
    EXPECT_TRUE(IsReadableByOthers(paths_.web / link)) << link;
  EXPECT_TRUE(Eventually([&] { return !service->IsRunning() && Completed() == 1; }));
  EXPECT_EQ(service->TakePhoto(), TimelapsePhoto::kNotActive);
  const auto item = service->Store().List({}).value()["instances"][0];
  EXPECT_EQ(item["video_duration"], "00:04");
  EXPECT_THAT(Leftovers(), IsEmpty());
}

TEST_F(TimelapseServiceTest, AFinishedFilmIsListedAgainAndMadeOnce) {
  auto service = Service();
  const std::string index = Record(*service, 2);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  ASSERT_NE(Film(*service, index), "");
  EXPECT_TRUE(Eventually([&] { return State(index) == "FINISHED\n" && Completed() == 1; }));
  EncodeAs("exit 1");
  // The description is lost.
  service.reset();
  dir_.WriteScript("ffprobe", "echo 61");
  dir_.Write("store/timelapse.json", "lost");
  service = Service();
  EXPECT_EQ(Film(*service, index), "a2\na1\na2\n");
  EXPECT_EQ(service->Store().List({}).value()["instances"][0]["video_duration"], "01:01");
  EXPECT_EQ(Completed(), 1U);
  // A record that leads elsewhere costs nothing that is there.
  service.reset();
  const fs::path video = fs::read_symlink(paths_.web / VideoLinkName(index));
  std::string records = test::ReadFile(dir_ / "store/timelapse.json");
  dir_.Write("store/timelapse.json", records.replace(records.find(video.filename()), 4, "gone"));
  dir_.Write("store/" + index + "/state", "GENERATING\n");
  service = Service();
  EXPECT_TRUE(Eventually([&] { return Completed() == 2; }));
  EXPECT_TRUE(fs::exists(video));
}

TEST_F(TimelapseServiceTest, AnInterruptedPrintGoesOnWithAllItsFrames) {
  std::string index;
  {
    const auto service = Service();
    index = Record(*service, 2);
  }
  // A line of the list cut short.
  std::ofstream(paths_.root / index / "filelist.txt", std::ios::app) << "file '/half";
  // An earlier version laid no record of a stop ready.
  EXPECT_TRUE(fs::remove(paths_.root / index / "state.stop"));
  const auto service = Service();
  EXPECT_FALSE(service->IsRunning());
  EXPECT_TRUE(service->Continue());
  EXPECT_TRUE(service->Continue()) << "it goes on already";
  EXPECT_TRUE(fs::exists(paths_.root / index / "state.stop"));
  EXPECT_EQ(service->TakePhoto(), TimelapsePhoto::kTaken);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_EQ(Film(*service, index), "a3\na1\na2\na3\n");
  EXPECT_FALSE(service->Continue()) << "a film that is finished";
}

TEST_F(TimelapseServiceTest, ANewPrintTakesNothingFromAnEarlierOne) {
  {
    const auto service = Service();
    (void)Record(*service, 2);
  }
  const std::string unfinished = Instances().front();
  const auto service = Service();
  EXPECT_TRUE(fs::exists(paths_.root / unfinished)) << "it may be continued";
  scene_ = "b";
  const std::string second = Record(*service, 1);
  EXPECT_THAT(Instances(), ElementsAre(second)) << "it may have the same index within one second";
  EXPECT_EQ(WorkDirectory(paths_.root / second, {}, {}).Photos().size(), 1U);
  EXPECT_TRUE(log_.Has("TLP", "Remove the unfinished time-lapse " + unfinished + " done."));
  scene_ = "c";
  const std::string third = Record(*service, 1);
  EXPECT_THAT(Instances(), ElementsAre(third)) << "not even one that runs";
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_EQ(Film(*service, third), "c4\nc4\n");
}

TEST_F(TimelapseServiceTest, AStopThatCouldNotBeRecordedIsRepeated) {
  const auto service = Service();
  const std::string index = Record(*service, 1);
  fs::remove(paths_.root / index / "state.stop");
  {
    const test::FullDisk full(0);
    EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kRefused);
    EXPECT_FALSE(service->StartNew({}));
  }
  EXPECT_EQ(State(index), "ACTIVATED\n");
  (void)Record(*service, 1);
  EXPECT_EQ(Film(*service, index), "a1\na1\n");
}

TEST_F(TimelapseServiceTest, WhatFailsNeverStopsWhatFollows) {
  // A photo that the encoder refuses, one at which it crashes, and the last one too.
  EncodeAs("case $input in *00002.jpg|*00006.jpg) exit 1;; *00003.jpg) kill -SEGV $$;; esac");
  dir_.WriteScript("ffprobe", "exit 1");
  const auto service = Service();
  const std::string index = Record(*service, 3);
  camera_fails_ = true;
  EXPECT_EQ(service->TakePhoto(), TimelapsePhoto::kFailed);
  camera_fails_ = false;
  EXPECT_EQ(service->TakePhoto(), TimelapsePhoto::kTaken);
  EXPECT_EQ(service->TakePhoto(), TimelapsePhoto::kTaken);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_EQ(Film(*service, index), "a4\na1\na4\n");
  EXPECT_TRUE(log_.Has("TLP", "Generate segment video failed, exit code: 1"));
  EXPECT_EQ(service->Store().List({}).value()["instances"][0]["video_duration"], "00:00");
  EXPECT_TRUE(Eventually([&] { return State(index) == "FINISHED\n"; }));
  const WorkDirectory work(paths_.root / index, {}, TimelapseState::kFinished);
  EXPECT_TRUE(Eventually([&] { return !fs::exists(work.AllSegmentsList()); }));
  EXPECT_THAT(work.Photos(), ElementsAre(2, 3, 6)) << "what is in no film is not removed";
}

TEST_F(TimelapseServiceTest, APhotoWhoseEncoderFailedIsTriedAgainForTheFilm) {
  const fs::path tried = dir_ / "tried_";
  const std::string first_time =
      "mkdir \"" + tried.string() + "$(basename \"$input\")\" 2>/dev/null && ";
  EncodeAs("case $input in *00001.jpg) " + first_time + "kill -9 $$;; *00002.jpg) " + first_time +
           "{ echo broken >\"$out\"; exit 0; };; esac\nawk '{print $41}' /proc/$$/stat >'" +
           (dir_ / "policy").string() + "'");
  const auto service = Service();
  const std::string index = Record(*service, 1);
  EXPECT_TRUE(Eventually([&] { return fs::exists(tried.string() + "photo_00001.jpg"); }));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(service->TakePhoto(), TimelapsePhoto::kTaken);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_EQ(Film(*service, index), "a3\na1\na2\na3\n") << "2 was encoded, but could not play";
  EXPECT_EQ(test::ReadFile(dir_ / "policy"), std::to_string(SCHED_IDLE) + "\n");
}

TEST_F(TimelapseServiceTest, AnEncoderThatHangsIsEndedAndHoldsUpNothing) {
  programs_.still_limit_ms = 1000;  // a busy machine starts a shell in less
  EncodeAs("case $input in *.jpg) exec sleep 100;; esac");
  std::string index;
  {
    const auto service = Service();
    index = Record(*service, 6);
    EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
    EXPECT_TRUE(Eventually([&] { return Completed() == 1; }));
    EXPECT_EQ(notified_.Items().back().second["message"], "the encoder does not work");
    (void)Record(*service, 1);
    EXPECT_TRUE(service->StartNew({})) << "while it hangs";
  }
  EncodeAs("case $input in *00001.jpg) exec sleep 100;; esac");
  const auto service = Service();
  EXPECT_EQ(Film(*service, index), "a6\na2\na3\na4\na5\na6\n") << "one photo is no hindrance";
}

TEST_F(TimelapseServiceTest, AnEncoderThatOutlivesItsDaemonSpoilsNothing) {
  const fs::path gate = dir_ / "gate";
  EncodeAs("while [ ! -e '" + gate.string() + "' ]; do sleep 0.02; done; echo orphan >\"$out\"");
  const pid_t daemon = ::fork();
  if (daemon == 0) {
    const auto service = Service();
    (void)Record(*service, 1);
    (void)Eventually([&] { return !Instances().empty(); });
    ::kill(::getpid(), SIGKILL);
  }
  ::waitpid(daemon, nullptr, 0);
  EncodeAs("");
  const std::string index = WorkDirectories(paths_).NextIndex();
  const auto service = Service();
  EXPECT_TRUE(service->Continue());
  dir_.Write("gate", "");
  EXPECT_EQ(service->TakePhoto(), TimelapsePhoto::kTaken);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_EQ(Film(*service, index), "a1\na1\na1\n");
  EXPECT_TRUE(Eventually([&] { return Leftovers().empty(); }));
}

TEST_F(TimelapseServiceTest, ANewOneThatCannotBeginLeavesNothingThatSeemsToRun) {
  const auto service = Service();
  (void)Record(*service, 1);
  fs::remove(paths_.NextIndex());
  fs::create_directories(paths_.NextIndex() / "in the way");
  EXPECT_FALSE(service->StartNew({}));
  EXPECT_FALSE(service->IsRunning());
  EXPECT_FALSE(service->Continue());
  EXPECT_EQ(service->TakePhoto(), std::nullopt);
  EXPECT_THAT(Instances(), IsEmpty());
}

TEST_F(TimelapseServiceTest, AFailedFilmIsTriedAgainWithoutARestart) {
  const auto service = Service();
  EXPECT_TRUE(service->StartNew({}));
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kRefused) << "no photo yet";
  const std::pair<const char*, const char*> faults[] = {
      {"[ -n \"$list\" ] && exit 1", "the video could not be generated"},
      {"[ -n \"$list\" ] || [ \"$out\" = - ] && kill -9 $$", "the video could not be generated"},
      {"[ \"$out\" = - ] && { echo '[h264] all broken' >&2; exit; }",
       "the video could not be generated"},
      {"case $out in cover*) kill -9 $$;; esac", "the cover could not be made"},
      {"case $out in thumb*) exit 1;; esac", "the thumbnail could not be made"},
      {"case $out in *1.ts) : >\"$out\"; exit;; esac", "there is no room for the film"}};
  size_t told = 0;
  for (const auto& [fault, message] : faults) {
    EncodeAs(fault);
    scene_ = 'a' + std::to_string(told);
    const std::string index = Record(*service, 2);
    EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
    ASSERT_TRUE(Eventually([&] { return Completed() == told + 1; })) << fault;
    EXPECT_EQ(notified_.Items().back().second["message"], message);
    EXPECT_EQ(State(index), "GENERATING\n");
    EXPECT_TRUE(service->IsRunning());
    EXPECT_FALSE(service->Continue());
    EXPECT_NE(service->Delete(index), hal_adapter::HalStatus::kSuccess);
    EncodeAs("echo 'libfoo 1.0 [banner] ' >&2; echo banner");
    const int last = photos_;
    (void)Record(*service, 1);
    EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
    const auto frame = [&](int number) { return scene_ + std::to_string(number) + '\n'; };
    EXPECT_EQ(Film(*service, index), frame(last) + frame(last - 1) + frame(last)) << fault;
    ASSERT_TRUE(Eventually([&] { return Completed() == told + 3; }));
    told += 3;
  }
}

TEST_F(TimelapseServiceTest, WithoutRoomAFilmWaitsUntilItHasFailedTooOften) {
  test::FakeClock clock;
  clock_ = clock;
  EncodeAs("[ -n \"$list\" ] && exit 1");
  auto service = Service();
  const std::string index = Record(*service, 2);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_TRUE(Eventually([&] { return Completed() == 1; }));
  clock.AwaitWaiters(1);
  clock.Advance(FilmWaits::kPause);
  const fs::path failures = paths_.root / index / "failures";
  EXPECT_TRUE(Eventually([&] { return test::ReadFile(failures) == "2\n"; }));
  EXPECT_TRUE(log_.Has("TLP", "The video generation might have failed, try 3 time."));
  service.reset();
  EncodeAs("");
  paths_.min_free_bytes = uint64_t{1} << 60U;
  service = Service();
  EXPECT_TRUE(Eventually([&] { return Completed() == 2; }));
  EXPECT_EQ(notified_.Items().back().second["message"], "there is no room for the film");
  EXPECT_EQ(test::ReadFile(failures), "2\n") << "a shortage is none";
  service.reset();
  dir_.Write("store/" + index + "/failures", "10\n");
  service = Service();
  EXPECT_TRUE(Eventually([&] { return Instances().empty(); }));
  EXPECT_TRUE(Eventually([&] { return Leftovers().empty(); }));
}

TEST_F(TimelapseServiceTest, AStoreThatCannotBeListedForAWhileDelaysAFilmByAMinute) {
  EncodeAs("[ -n \"$list\" ] && exit 1");
  auto service = Service();
  const std::string index = Record(*service, 1);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  EXPECT_TRUE(Eventually([&] { return Completed() == 1; }));
  service.reset();
  EncodeAs("");
  fs::rename(paths_.root, dir_ / "away");
  dir_.Write("store", "no directory");
  test::FakeClock clock;
  clock_ = clock;
  service = Service();
  clock.AwaitWaiters(1);
  fs::remove(paths_.root);
  fs::rename(dir_ / "away", paths_.root);
  clock.Advance(std::chrono::minutes(1));
  // Only then: who waits for the store's lock on this clock waits no time at all.
  EXPECT_TRUE(Eventually([&] { return Completed() == 2; }));
  EXPECT_EQ(Film(*service, index), "a1\na1\n");
  service.reset();  // before its clock
}

TEST_F(TimelapseServiceTest, TheStartClearsAwayWhatWasHalfMade) {
  dir_.Write("store/.new_20260101000000/config.json", "{}");
  dir_.Write("store/20260101000001/state", "READY\n");
  dir_.Write("store/20260101000002/state", "nonsense");
  dir_.Write("store/20260101000003/photo_00001.jpg", "no state");
  dir_.Write("store/2026010100000/state", "GENERATING\n");
  dir_.Write("store/.varnel-abcdef", "x");
  dir_.Write("upload/1_timelapse_enc.mp4.enc", "x");
  const auto service = Service();
  EXPECT_THAT(Instances(), ElementsAre("20260101000002", "20260101000003"));
  EXPECT_TRUE(fs::exists(paths_.root / "2026010100000/state")) << "thirteen digits";
  EXPECT_TRUE(fs::is_empty(paths_.upload));
  EXPECT_TRUE(Eventually([&] { return Leftovers().empty(); }));
}

/// A cloud in a directory.
class CopyingUploader : public FileUploader {
 public:
  explicit CopyingUploader(fs::path target) : target_(std::move(target)) {}
  bool HasAccess() override { return true; }
  std::optional<std::string> Upload(const UploadRequest& request) override {
    EXPECT_EQ(fs::status(request.file.parent_path()).permissions(), fs::perms::owner_all);
    fs::copy_file(request.file, target_, fs::copy_options::overwrite_existing);
    EXPECT_TRUE(request.progress(1, 2));
    return "https://cloud.example/" + request.name;
  }

 private:
  const fs::path target_;
};

TEST_F(TimelapseServiceTest, AnUploadedFilmIsDecryptedByWhatTheAnswerTells) {
  const fs::path sent = dir_ / "sent";
  const auto service = Service(std::make_unique<CopyingUploader>(sent));
  const std::string index = Record(*service, 2);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  ASSERT_NE(Film(*service, index), "");
  const auto film = service->Upload(index, "video");
  ASSERT_TRUE(film);
  EXPECT_THAT(film->url, testing::HasSubstr("_timelapse_enc.mp4.enc"));
  EXPECT_TRUE(fs::is_empty(paths_.upload));
  EXPECT_TRUE(log_.Has("TLP", "Upload timelapse progress: 50% (1/2)"));
  EXPECT_EQ(log_.Text().find(film->password), std::string::npos);
  const auto plain = utils::SafeExec("/usr/bin/openssl")
                         .AddArg("enc")
                         .AddArg("-d")
                         .AddArg("-aes-256-cbc")
                         .AddArg("-pbkdf2")
                         .AddArg("-md")
                         .AddArg("sha256")
                         .AddArg("-iter")
                         .AddArg(std::to_string(film->iterations))
                         .AddArg("-pass")
                         .AddArg("pass:" + film->password)
                         .AddArg("-in")
                         .AddArg(sent.string())
                         .Execute();
  EXPECT_EQ(plain.standard_output, "a2\na1\na2\n") << plain.standard_error;
}

TEST_F(TimelapseServiceTest, UploadsNeedTheCloudAndOnlyFilmsAreSent) {
  const auto service = Service();
  const std::string index = Record(*service, 1);
  EXPECT_EQ(service->Stop(), TimelapseService::StopResult::kStopped);
  ASSERT_NE(Film(*service, index), "");
  EXPECT_EQ(service->Upload(index, "audio").Why(), hal_adapter::HalStatus::kFailure);
  EXPECT_EQ(service->Upload("20200101000000", "video").Why(),
            hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(service->Upload(index, "video").Why(), hal_adapter::HalStatus::kFailure);
  EXPECT_TRUE(log_.Has("TLP", "Cloud access code is unavailable."));
  EXPECT_EQ(service->Store().Publish({{"date_index", index},
                                      {"timelapse_dir", (paths_.root / index).string()},
                                      {"video_path", "/etc/passwd"}}),
            "");
  EXPECT_EQ(service->Upload(index, "video").Why(), hal_adapter::HalStatus::kFileNotFound);
  EXPECT_EQ(service->Upload(index, "thumbnail").Why(), hal_adapter::HalStatus::kFailure);
}

}  // namespace
}  // namespace varnel::service
