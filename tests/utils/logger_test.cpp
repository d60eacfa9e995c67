#include "utils/logger.h"

#include <gmock/gmock.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>

#include "support/fake_clock.h"
#include "support/full_disk.h"
#include "support/temp_dir.h"
#include "utils/log.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

/// Each test has the process's default logger to itself and puts the former one back.
class LoggerTest : public testing::Test {
 protected:
  ~LoggerTest() override {
    spdlog::drop("varnel");
    spdlog::set_default_logger(before_);
  }

  void Start(size_t megabytes, size_t count) {
    const Logger logger("varnel", File().string(), megabytes, count, clock_);
  }
  void LogAndFlush(const char* text) {
    VLOG_INFO("TEST", "{}", text);
    spdlog::default_logger()->flush();
  }
  fs::path File() const { return dir_ / "logs/varnel.log"; }
  std::string Content() const { return test::ReadFile(File()); }

  test::TempDir dir_;
  test::FakeClock clock_;
  std::shared_ptr<spdlog::logger> before_ = spdlog::default_logger();
};

TEST_F(LoggerTest, BadArgumentsAreRefused) {
  EXPECT_THROW(Logger("", "/tmp/x", 10, 5), std::runtime_error);
  EXPECT_THROW(Logger("varnel", "", 10, 5), std::runtime_error);
  EXPECT_THROW(Logger("varnel", File().string(), 0, 5), std::runtime_error);
  EXPECT_THROW(Logger("varnel", "/proc/no/such/file", 10, 5), spdlog::spdlog_ex);
}

TEST_F(LoggerTest, LinesOfTheLevelReachAFileThatOthersCannotRead) {
  Start(10, 5);
  VLOG_DEBUG("TEST", "unseen");
  LogAndFlush("seen");
  EXPECT_THAT(Content(), HasSubstr("log name: varnel, file size: 10 MB, count: 5\n"));
  EXPECT_THAT(Content(), testing::ContainsRegex(R"(\[varnel\] \[info\] \[TEST:[0-9]+\] seen)"));
  EXPECT_THAT(Content(), Not(HasSubstr("unseen")));
  struct stat info {};
  ASSERT_EQ(::stat(File().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0640U);
}

TEST_F(LoggerTest, NeitherALinkNorAFifoInItsPlaceIsWrittenTo) {
  const fs::path victim = dir_.Write("victim", "precious");
  fs::create_directory(dir_ / "logs");
  fs::create_symlink(victim, File());
  Start(10, 5);
  LogAndFlush("after the link");
  fs::remove(File());
  ASSERT_EQ(::mkfifo(File().c_str(), 0600), 0);
  LogAndFlush("lost with the removed file");
  LogAndFlush("after the FIFO");
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(File())));
  EXPECT_THAT(Content(), HasSubstr("after the FIFO"));
  EXPECT_EQ(test::ReadFile(victim), "precious");
}

TEST_F(LoggerTest, RotationKeepsTheLimitOfFilesAndBytes) {
  Start(1, 5);
  const std::string line(100'000, 'x');
  for (int i = 0; i < 100; ++i) {
    VLOG_INFO("TEST", "{} {}", i, line);
  }
  VLOG_INFO("TEST", "{}", std::string(3'000'000, 'y'));
  spdlog::default_logger()->flush();
  size_t files = 0;
  for (const auto& entry : fs::directory_iterator(dir_ / "logs")) {
    ++files;
    EXPECT_LE(entry.file_size(), 1U << 20U) << entry.path();
  }
  EXPECT_EQ(files, 6U);
  EXPECT_TRUE(fs::exists(dir_ / "logs/varnel.5.log"));
}

TEST_F(LoggerTest, ResumesAfterTheDirectoryWasRemoved) {
  Start(10, 5);
  testing::internal::CaptureStderr();
  fs::remove_all(dir_ / "logs");
  LogAndFlush("into the removed file");
  LogAndFlush("into the new file");
  EXPECT_THAT(Content(), HasSubstr("into the new file"));

  // Now it cannot even be made again: nothing is tried until some seconds have passed.
  fs::remove_all(dir_ / "logs");
  dir_.Write("logs", "in the way");
  LogAndFlush("a");
  LogAndFlush("b");
  fs::remove(dir_ / "logs");
  LogAndFlush("c");
  EXPECT_FALSE(fs::exists(File()));
  clock_.Advance(6s);
  LogAndFlush("d");
  EXPECT_THAT(Content(), HasSubstr("2 log lines were lost"));
  EXPECT_THAT(Content(), HasSubstr("] d\n"));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("log file"));
}

TEST_F(LoggerTest, SurvivesAFailedRotationAndAFullDisk) {
  Start(1, 2);
  testing::internal::CaptureStderr();
  const std::string half(500'000, 'x');
  fs::create_directories(dir_ / "logs/varnel.1.log/in the way");  // the rename fails
  for (int i = 0; i < 8; ++i) {
    LogAndFlush(half.c_str());
  }
  fs::remove_all(dir_ / "logs/varnel.1.log");

  clock_.Advance(6s);
  {
    const test::FullDisk disk(0);
    for (int i = 0; i < 8; ++i) {
      LogAndFlush(half.c_str());
      clock_.Advance(6s);
    }
  }
  (void)testing::internal::GetCapturedStderr();
  LogAndFlush("room again");
  EXPECT_THAT(Content(), HasSubstr("log lines were lost"));
  EXPECT_THAT(Content(), HasSubstr("] room again\n"));
}

}  // namespace
}  // namespace varnel::utils
