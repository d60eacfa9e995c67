#include "app/environment_check.h"

#include <gmock/gmock.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::app {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class EnvironmentCheckTest : public testing::Test {
 protected:
  const test::TempDir directory_;
  const test::LogCapture log_;
};

TEST_F(EnvironmentCheckTest, OldLogsGoAndEverythingElseStays) {
  const std::vector<fs::path> old = {
      directory_.Write("system_mgmt.log", ""), directory_.Write("camera_service.3.log", "x"),
      directory_.Write("mqtt_agent.1.log", "x"), directory_.Write("mqtt_agent.7.log", "x")};
  const std::vector<fs::path> others = {
      directory_.Write("varnel.log", "x"), directory_.Write("varnel.1.log", "x"),
      directory_.Write("camera_service.8.log", "x"), directory_.Write("camera_service.0.log", "x"),
      directory_.Write("system_mgmt.log.bak", "x")};
  const fs::path dangling = directory_ / "camera_service.log";
  fs::create_symlink("/nowhere/at/all", dangling);

  RemoveOldLogs(directory_.Path());
  for (const fs::path& file : old) EXPECT_FALSE(fs::exists(file)) << file;
  for (const fs::path& file : others) EXPECT_TRUE(fs::exists(file)) << file;
  EXPECT_FALSE(fs::is_symlink(dangling));
  EXPECT_EQ(log_.Text(), "");
}

TEST_F(EnvironmentCheckTest, AnOldLogThatCannotBeRemovedIsReportedAndTheNextOnesGo) {
  const fs::path stuck = directory_ / "camera_service.2.log";
  directory_.Write("camera_service.2.log/kept", "a directory that is not empty");
  const fs::path next = directory_.Write("mqtt_agent.log", "x");

  RemoveOldLogs(directory_.Path());
  EXPECT_TRUE(
      log_.Has("MAIN", "remove " + stuck.string() + " failed, reason: Directory not empty"));
  EXPECT_EQ(log_.Lines().size(), 1U);
  EXPECT_FALSE(fs::exists(next));
  RemoveOldLogs(directory_ / "nowhere");
  EXPECT_EQ(log_.Lines().size(), 1U) << "no directory, nothing to report";
}

TEST_F(EnvironmentCheckTest, ProgramsAreReportedAsTheLocatorFindsThem) {
  const std::string locator = directory_.WriteScript("which", "[ \"$1\" = /there/tar ]");
  CheckSystemPrograms(locator, {{"tar", "/there/tar"}, {"ffmpeg", "/there/ffmpeg"}});
  EXPECT_THAT(log_.Lines().size(), 2U);
  EXPECT_TRUE(log_.Has("MAIN", "System program tar is located in /there/tar"));
  EXPECT_TRUE(log_.Has("MAIN", "System program ffmpeg(/there/ffmpeg) is not exists."));
  EXPECT_THAT(log_.Text(), HasSubstr("E [MAIN:"));

  CheckSystemPrograms("/nowhere/which", {{"openssl", "/there/openssl"}});
  EXPECT_TRUE(log_.Has("MAIN", "System program openssl(/there/openssl) is not exists."));
}

TEST_F(EnvironmentCheckTest, UptimeIsOneLineWhateverTheFileHolds) {
  LogUptime(directory_.Write("uptime", "41.75 160.20\n"));
  EXPECT_TRUE(log_.Has("MAIN", "System uptime is 41.75 160.20"));
  LogUptime(directory_ / "nowhere");
  EXPECT_EQ(log_.Lines().size(), 2U);
}

}  // namespace
}  // namespace varnel::app
