#include "service/camera/monitor/monitor.h"

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "support/eventually.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using hal_adapter::PhotoStatus;
using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Eventually;

/// A camera, a cloud and clients; time passes by photos, and by pauses unless it stands.
class MonitorTest : public testing::Test, public hal_adapter::PhotoTaker, public FileUploader {
 protected:
  struct Told {
    milliseconds time;
    std::string method;
    json params;
  };

  explicit MonitorTest(test::FakeClock::Waiting waiting = test::FakeClock::Waiting::kJump)
      : clock_(waiting) {
    FfmpegDoes("echo black > \"$out\"");
  }

  void FfmpegDoes(const std::string& work) {
    dir_.WriteScript("ffmpeg", "for out; do :; done\n" + work);
  }
  std::unique_ptr<Monitor> NewMonitor(bool fixed_password = false) {
    return std::make_unique<Monitor>(MonitorSetup{
        .paths = paths_,
        .encryption = {fixed_password, 1000, dir_ / "own/password"},
        .ffmpeg = dir_ / "ffmpeg",
        .camera = this,
        .uploader = {std::shared_ptr<void>(), this},
        .serial_number = [] { return "SN1"; },
        .notify = [this](const auto& method, const json& params) { Tell(method, params); },
        .clock = &clock_});
  }
  void Tell(const std::string& method, const json& params) {
    told_.Put({clock_.Elapsed(), method.substr(method.find("_camera_") + 8), params});
  }
  PhotoStatus TakePhoto(const std::string& path) override {
    clock_.Advance(photo_time_);
    ++photos_;
    if (during_photo_) during_photo_();
    if (photo_fails_) return PhotoStatus::kCaptureFailed;
    std::ofstream(path) << "photo";
    return PhotoStatus::kSuccess;
  }
  PhotoStatus TakePhoto(const utils::FilePlace&) override { return PhotoStatus::kNotWritable; }
  bool HasAccess() override { return has_access_; }
  std::optional<std::string> Upload(const UploadRequest& request) override {
    return cloud_fails_ ? std::nullopt : std::optional("https://cloud.test/" + request.name);
  }
  /// What clients were told once monitoring has ended so many times.
  std::vector<Told> AwaitEnd(size_t ends = 1) {
    EXPECT_TRUE(Eventually([&] {
      const auto told = told_.Items();
      return std::count_if(told.begin(), told.end(), [](const Told& one) {
               return one.params.value("monitoring", true) == false;
             }) == static_cast<std::ptrdiff_t>(ends);
    }));
    return told_.Items();
  }

  test::LogCapture log_;
  test::TempDir dir_;
  const MonitorPaths paths_{dir_ / "snap.jpg", dir_ / "snap.enc", dir_ / "web/monitor.jpg"};
  test::FakeClock clock_;
  test::Mailbox<Told> told_;
  milliseconds photo_time_{300};
  std::function<void()> during_photo_;
  std::atomic<int> photos_ = 0;
  std::atomic<bool> photo_fails_ = false;
  std::atomic<bool> has_access_ = true;
  std::atomic<bool> cloud_fails_ = false;
};

class StandingMonitorTest : public MonitorTest {
 protected:
  StandingMonitorTest() : MonitorTest(test::FakeClock::Waiting::kManual) {}
};

TEST_F(MonitorTest, ItEndsWhenNobodyRenewsItAndSaysSoBefore) {
  size_t ends = 0;
  const auto expect_period = [&](seconds interval, milliseconds round, milliseconds renewal) {
    photo_time_ = round;
    const auto monitor = NewMonitor();
    const milliseconds begin = clock_.Elapsed();
    milliseconds last_start = begin;
    during_photo_ = [&] {
      if (last_start != begin || renewal.count() == 0 || clock_.Elapsed() - begin < renewal) return;
      EXPECT_TRUE(monitor->Start("lan", interval));
      last_start = clock_.Elapsed();
    };
    auto told = told_.Items().size();
    ASSERT_TRUE(monitor->Start("lan", interval));
    const auto all = AwaitEnd(++ends);
    EXPECT_EQ(all[told].params.value("monitoring", false), true);
    EXPECT_EQ(all.back().params.value("reason", ""), "expired");
    EXPECT_GE(all.back().time - last_start, seconds(361));
    EXPECT_LE(all.back().time - last_start, seconds(361) + round);
    // A long round may well begin before and end after the time in which it is said.
    if (round < seconds(50)) {
      EXPECT_EQ(all[all.size() - 2].method, "monitoring_to_stop");
    }
    while (++told + 1 < all.size()) {
      const bool of_last = all[told].time > last_start;
      const milliseconds passed = all[told].time - (of_last ? last_start : begin);
      const int remain = all[told].params.value("remain", -1);
      // A start within a round holds from its end.
      EXPECT_GE(remain, 360 - std::chrono::floor<seconds>(passed).count());
      EXPECT_TRUE(remain >= 0 && remain <= 49 && passed >= seconds(311)) << remain;
      EXPECT_TRUE(last_start != begin || remain == 360 - passed / seconds(1)) << remain;
    }
    EXPECT_FALSE(monitor->Domains().Any());
    EXPECT_FALSE(fs::exists(paths_.snapshot) || fs::is_symlink(paths_.web_link));
  };
  for (const int interval : {0, 5, 49, 300, 3600}) {
    for (const int round : {300, 70'000}) {
      for (const int renewal : {0, 310'900, 311'100, 360'900}) {
        SCOPED_TRACE(testing::Message() << interval << " s, " << round << " ms, " << renewal);
        expect_period(seconds(interval), milliseconds(round), milliseconds(renewal));
      }
    }
  }
}

TEST_F(StandingMonitorTest, StopsEndAPauseAtOnceAndAStartBeginsARound) {
  const auto monitor = NewMonitor();
  ASSERT_TRUE(monitor->Start("lan", seconds(3600)));
  clock_.AwaitWaiters(1);
  ASSERT_TRUE(monitor->Start("wan", seconds(3600)));
  EXPECT_TRUE(Eventually([&] { return photos_ == 2; }));
  clock_.AwaitWaiters(1);
  EXPECT_EQ(fs::read_symlink(paths_.web_link), paths_.snapshot);
  EXPECT_TRUE(monitor->Stop("lan") && monitor->Stop("lan"));
  EXPECT_FALSE(monitor->Stop("Wan"));
  const milliseconds stopped = clock_.Elapsed();
  EXPECT_TRUE(monitor->Stop("wan"));
  EXPECT_EQ(AwaitEnd().back().params["reason"], "stopped");
  EXPECT_EQ(clock_.Elapsed(), stopped);
}

TEST_F(StandingMonitorTest, AStartFailsWithItsReasonAndTheNextOneRuns) {
  const auto monitor = NewMonitor();
  const std::vector<std::pair<std::function<void()>, std::string>> causes{
      {[&] { has_access_ = false; }, "Get access failed."},
      {[&] { fs::permissions(dir_ / "ffmpeg", fs::perms::owner_read); },
       "ffmpeg program is not exists."},
      {[&] { FfmpegDoes("exit 7"); }, "Execute error, code is 7"},
      {[&] { FfmpegDoes(""); }, "Encrypt file error: Open file "},
      {[&] { cloud_fails_ = true; }, "Push file failed."},
  };
  for (const auto& [cause, text] : causes) {
    cause();
    EXPECT_FALSE(monitor->Start("wan", seconds(5))) << text;
    EXPECT_NE(log_.Text().find("] " + text), std::string::npos) << text;
    EXPECT_FALSE(monitor->Domains().Any());
    has_access_ = true;
    cloud_fails_ = false;
    FfmpegDoes("echo black > \"$out\"");
    EXPECT_TRUE(monitor->Start("wan", seconds(5)));
    EXPECT_TRUE(monitor->Stop("wan"));
  }
  EXPECT_TRUE(Eventually([&] {
    return std::distance(fs::directory_iterator(dir_.Path()), {}) == 1;
  })) << "nothing but ffmpeg is left";
}

TEST_F(MonitorTest, NoPictureOfThePastLooksLikeOneOfNow) {
  dir_.Write("snap.jpg", "left over");
  const auto monitor = NewMonitor();
  EXPECT_FALSE(fs::exists(paths_.snapshot));
  during_photo_ = [&] {
    photo_fails_ = photos_ > 2;
    EXPECT_EQ(fs::exists(paths_.web_link), photos_ > 1 && photos_ < 6);
  };
  ASSERT_TRUE(monitor->Start("lan", seconds(0)));
  (void)AwaitEnd();
  EXPECT_LE(photos_, 361) << "a camera that fails is asked once a second";
}

TEST_F(StandingMonitorTest, AFixedPasswordIsTheDevicesForEver) {
  const auto fixed = NewMonitor(true)->Start("lan", seconds(5)).value();
  EXPECT_EQ(fixed.iterations, 983U);
  EXPECT_EQ(fixed.url, "");
  const auto again = NewMonitor(true)->Start("wan", seconds(5)).value();
  EXPECT_EQ(again.password + again.url, fixed.password + "https://cloud.test/SN1_monitor.enc");
  EXPECT_EQ(fs::status(dir_ / "own/password").permissions(), fs::perms(0600));
  EXPECT_THAT(test::ReadFile(dir_ / "own/password"),
              testing::StartsWith(fixed.password + ' ' + fixed.salt_hex));
  dir_.Write("own/password", "broken");
  EXPECT_NE(NewMonitor(true)->Start("lan", seconds(5)).value().password, fixed.password);
  EXPECT_EQ(test::ReadFile(dir_ / "own/password.bad"), "broken");
  EXPECT_EQ(log_.Text().find(fixed.password), std::string::npos);
}

TEST_F(StandingMonitorTest, AStartThatMeetsTheEndOfThePeriodWins) {
  MonitorSwitches switches(clock_);
  MonitorFiles files(paths_);
  MonitorUpload upload(
      *this, [] { return "x"; }, clock_);
  const MonitorNotify notify = [this](const auto& method, const json& params) {
    Tell(method, params);
  };
  photo_fails_ = true;
  const MonitorTask task({*this, switches, files, upload, notify, clock_});
  const auto crypto = std::make_shared<utils::OpenSSLCrypto>(
      "race", "password", 1, utils::SaltMode::kRandomOnce, std::vector<uint8_t>());
  const auto start = [&] {
    return switches.TurnOn(switches.Begin(MonitorDomain::kLan), crypto, seconds(3600));
  };
  for (int race = 0; race < 1000; ++race) {
    ASSERT_TRUE(start());
    clock_.AwaitWaiters(1);
    clock_.Advance(seconds(361));
    for (int wait = 0; wait < race % 100 * 20; ++wait) std::this_thread::yield();
    ASSERT_TRUE(start());
    clock_.AwaitWaiters(1);
    ASSERT_TRUE(switches.Domains().lan) << race;
  }
  switches.TurnOff(MonitorDomain::kLan);
  bool on = false;
  for (const Told& told : AwaitEnd(told_.Items().size() / 2))
    EXPECT_EQ(told.params.value("monitoring", on), on = !on) << "the notices alternate";
}

}  // namespace
}  // namespace varnel::service
