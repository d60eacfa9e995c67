#include "service/system/date_record.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include "support/eventually.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

using std::chrono::seconds;

/// The record in a directory that does not exist yet, one hour east of Greenwich.
class DateRecordTest : public testing::Test {
 protected:
  DateRecordTest() {
    ::setenv("TZ", "CET-1", 1);
    clock_.SetWallTime(At(1735689600));
    record_.Start();
  }
  ~DateRecordTest() override {
    record_.Stop();  // it reads the environment
    ::unsetenv("TZ");
  }

  static utils::Clock::WallTime At(int64_t time) { return utils::Clock::WallTime(seconds(time)); }
  bool Reads(const std::string& digits) {
    return test::Eventually([&] { return test::ReadFile(file_) == digits; });
  }
  void PassPeriod() {
    clock_.AwaitWaiters(1);
    clock_.Advance(DateRecord::kPeriod);
  }

  test::LogCapture log_;
  test::TempDir dir_;
  const std::filesystem::path directory_ = dir_ / "printer_data/varnel";
  const std::filesystem::path file_ = directory_ / "last_recorded_date";
  test::FakeClock clock_;
  DateRecord record_{directory_, clock_};
};

TEST_F(DateRecordTest, RecordsTheLocalTimeEachMinuteAndAJumpBackwardsAsItIs) {
  ASSERT_TRUE(Reads("20250101010000"));
  clock_.AwaitWaiters(1);
  clock_.Advance(DateRecord::kPeriod - std::chrono::milliseconds(1));
  EXPECT_EQ(test::ReadFile(file_), "20250101010000");
  clock_.Advance(std::chrono::milliseconds(1));
  ASSERT_TRUE(Reads("20250101010100"));
  clock_.SetWallTime(At(0));
  PassPeriod();
  ASSERT_TRUE(Reads("19700101010100"));
  for (const auto& entry : std::filesystem::directory_iterator(directory_))
    EXPECT_EQ(entry.path(), file_);
}

TEST_F(DateRecordTest, AnUnwritableDirectoryIsLoggedEachTimeAndSurvived) {
  ASSERT_TRUE(Reads("20250101010000"));
  std::filesystem::remove_all(directory_);
  dir_.Write("printer_data/varnel", "a file in the way");
  for (const size_t failures : {1U, 2U}) {
    PassPeriod();
    ASSERT_TRUE(test::Eventually([&] {
      return log_.Count("TSYNC", "Open file '" + file_.string() + "' failed.") == failures;
    }));
  }
  std::filesystem::remove(directory_);
  PassPeriod();
  EXPECT_TRUE(Reads("20250101010300"));
}

TEST_F(DateRecordTest, OneTaskAtATimeAndStartedAgainAfterItsEnd) {
  ASSERT_TRUE(Reads("20250101010000"));
  record_.Start();
  record_.Stop();
  record_.Stop();
  clock_.Advance(seconds(5));
  record_.Start();
  EXPECT_TRUE(Reads("20250101010005"));
  EXPECT_EQ(log_.Count("TSYNC", "Record system date task start."), 2U);
}

}  // namespace
}  // namespace varnel::service
