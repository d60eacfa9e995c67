#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <functional>
#include <latch>
#include <thread>

#include "hal_adapter/fake_tables.h"
#include "hal_adapter/multimedia_adapter.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

/// Runs before the next sync of a file.
std::function<void()> on_sync;

}  // namespace

// In the place of the library's.
extern "C" int fsync(int fd) {
  if (const auto hook = on_sync) hook();
  return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace varnel::hal_adapter {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

/// Writes its arguments and what it can tell of its directory beside itself and copies its input
/// (argument 11) to its output.
constexpr const char* kConverter = R"(echo "$*" > "$0.args"
stat -c %a . > "$0.mode"; ls -A "${0%/*}/out" > "$0.seen"
for output; do :; done
cp "${11}" "$output")";

class PhotoTest : public testing::Test {
 protected:
  PhotoTest() {
    test::Fake() = {};
    registry_.multimedia.Register(&table_);
    fs::create_directory(dir_ / "out");
    fs::create_directory(dir_ / "workshop");
    UseConverter(kConverter);
  }
  ~PhotoTest() override {
    test::Fake() = {};
    on_sync = {};
    EXPECT_TRUE(fs::is_empty(dir_ / "workshop"));
  }

  void UseConverter(const char* script) { converter_ = dir_.WriteScript("converter", script); }
  std::unique_ptr<MultimediaAdapter> Adapter() {
    return std::make_unique<MultimediaAdapter>(
        MultimediaSetup{.init = [] { return HalStatus::kSuccess; },
                        .has_space = [this](const fs::path&) { return has_space_; },
                        .paths = {converter_, raw_frame_, dir_ / "workshop"},
                        .registry = &registry_,
                        .clock = &clock_});
  }
  PhotoStatus Take(const std::string& path) {
    std::unique_ptr<MultimediaAdapter> adapter = Adapter();
    static_cast<void>(adapter->Start());
    return adapter->TakePhoto(path);
  }
  std::string Out(const std::string& name) const { return dir_ / "out" / name; }
  size_t FilesInOut() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(dir_ / "out"), {}));
  }

  test::LogCapture log_;
  test::TempDir dir_;
  test::FakeClock clock_;
  MultimediaHalInterface table_ = test::FakeMultimedia();
  HalRegistry registry_;
  fs::path converter_;
  fs::path raw_frame_ = dir_ / "capture.bin";
  bool has_space_ = true;
};

TEST_F(PhotoTest, StartFindsCamerasOpensTheFirstAndWarmsUp) {
  test::Fake().cameras = 3;
  test::Fake().broken_camera = 0;
  std::unique_ptr<MultimediaAdapter> adapter = Adapter();
  EXPECT_FALSE(adapter->Ready());
  ASSERT_TRUE(adapter->Start());
  EXPECT_TRUE(adapter->Ready());
  EXPECT_THAT(test::Fake().calls, testing::ElementsAre("open 1"));
  EXPECT_EQ(log_.Count("HALMM", "filepath is empty, do not save to any file"), 10u);
  EXPECT_EQ(clock_.Elapsed(), 5s);
}

TEST_F(PhotoTest, StartFailsWithoutAnOpenCamera) {
  test::Fake().count_status = HalStatus::kFailure;
  EXPECT_FALSE(Adapter()->Start());
  test::Fake().count_status = HalStatus::kSuccess;
  test::Fake().cameras = 0;
  EXPECT_FALSE(Adapter()->Start());
  test::Fake().cameras = 1;
  test::Fake().status = HalStatus::kFailure;
  std::unique_ptr<MultimediaAdapter> adapter = Adapter();
  EXPECT_FALSE(adapter->Start());
  EXPECT_FALSE(adapter->Ready());
  EXPECT_EQ(Adapter()->TakePhoto(""), PhotoStatus::kCaptureFailed);
  EXPECT_EQ(clock_.Elapsed(), 0s) << "no warm-up";
}

TEST_F(PhotoTest, ConvertsWhereNobodyPlantsALink) {
  EXPECT_EQ(Take(Out("100%d.jpeg")), PhotoStatus::kSuccess);
  EXPECT_EQ(test::ReadFile(Out("100%d.jpeg")), std::string(16, 'x'));
  EXPECT_THAT(test::ReadFile(dir_ / "converter.args"),
              testing::MatchesRegex("-y -v error -f rawvideo .* -frames:v 1 [^/%]*\\.jpeg\n"));
  EXPECT_EQ(test::ReadFile(dir_ / "converter.mode"), "700\n");
  EXPECT_THAT(test::ReadFile(dir_ / "converter.seen"), testing::Not(testing::HasSubstr(".v")));
}

TEST_F(PhotoTest, AFailedConversionLeavesTheDestinationAsItWas) {
  dir_.Write("out/old.jpg", "old");
  for (const char* script :
       {"echo half > \"$0.half\"; for o; do :; done; echo half > \"$o\"; exit 3", "exit 0",
        "yes 'two\nlines' | head -c 9000 >&2; exit 1"}) {
    UseConverter(script);
    EXPECT_EQ(Take(Out("old.jpg")), PhotoStatus::kConversionFailed) << script;
  }
  test::Fake().pixel_format = 5;
  EXPECT_EQ(Take(Out("old.jpg")), PhotoStatus::kConversionFailed);
  for (const std::string& line : log_.Lines())
    EXPECT_THAT(line, testing::MatchesRegex("[A-Z] \\[[A-Z]+:[0-9]+\\] .{0,1000}"));
  EXPECT_EQ(test::ReadFile(Out("old.jpg")), "old");
  EXPECT_EQ(FilesInOut(), 1u);
}

TEST_F(PhotoTest, ReportsADestinationThatCannotBeWritten) {
  fs::create_directories(dir_ / "out/taken.jpg/x");
  for (const char* name : {"missing/p.jpg", "missing/p.raw", "taken.jpg"}) {
    EXPECT_EQ(Take(Out(name)), PhotoStatus::kNotWritable) << name;
  }
  has_space_ = false;
  EXPECT_EQ(Take(Out("p.jpg")), PhotoStatus::kNotWritable);
  EXPECT_EQ(Take(""), PhotoStatus::kSuccess) << "nothing is to be written";
  EXPECT_EQ(FilesInOut(), 1u);
  has_space_ = true;
  test::Fake().frame.clear();
  EXPECT_EQ(Take("/proc/p.jpg"), PhotoStatus::kNotWritable) << "known before the camera is asked";
}

TEST_F(PhotoTest, TheRawFrameFollowsNoPlantedLinkAndIsPrivate) {
  fs::create_symlink(dir_.Write("victim", "untouched"), raw_frame_);
  EXPECT_EQ(Take(Out("p.jpg")), PhotoStatus::kSuccess);
  EXPECT_EQ(test::ReadFile(dir_ / "victim"), "untouched");
  struct stat info {};
  ASSERT_EQ(::lstat(raw_frame_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  raw_frame_ = dir_ / "missing/capture.bin";
  EXPECT_EQ(Take(Out("q.jpg")), PhotoStatus::kConversionFailed);
}

TEST_F(PhotoTest, ADriveThatIsSlowToSyncKeepsNobodyFromTheCamera) {
  std::unique_ptr<MultimediaAdapter> adapter = Adapter();
  ASSERT_TRUE(adapter->Start());
  std::latch syncing{1};
  std::latch synced{1};
  on_sync = [&] {
    on_sync = {};
    syncing.count_down();
    synced.wait();
  };
  std::jthread slow([&] { EXPECT_EQ(adapter->TakePhoto(Out("a.jpg")), PhotoStatus::kSuccess); });
  syncing.wait();
  EXPECT_EQ(adapter->TakePhoto(Out("b.jpg")), PhotoStatus::kSuccess);
  EXPECT_FALSE(fs::exists(Out("a.jpg")));
  EXPECT_EQ(FilesInOut(), 1u) << "what is not whole has no name";
  synced.count_down();
  slow.join();
  EXPECT_EQ(FilesInOut(), 2u);
}

}  // namespace
}  // namespace varnel::hal_adapter
