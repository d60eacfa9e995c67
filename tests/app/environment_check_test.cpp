#include "app/environment_check.h"

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::app {
namespace {

namespace fs = std::filesystem;

TEST(EnvironmentCheckTest, OldLogsGoAndEverythingElseStays) {
  const test::TempDir directory;
  const test::LogCapture log;
  std::vector<fs::path> old;
  for (const char* name : {"system_mgmt.log", "camera_service.3.log", "mqtt_agent.7.log"})
    old.push_back(directory.Write(name, "x"));
  std::vector<fs::path> others;
  for (const char* name : {"varnel.log", "varnel.1.log", "camera_service.8.log",
                           "camera_service.0.log", "system_mgmt.log.bak", "mqtt_agent.1.log/kept"})
    others.push_back(directory.Write(name, "x"));
  const fs::path dangling = directory / "camera_service.log";
  fs::create_symlink("/nowhere/at/all", dangling);

  RemoveOldLogs(directory.Path());
  RemoveOldLogs(directory / "nowhere");
  for (const fs::path& file : old) EXPECT_FALSE(fs::exists(file)) << file;
  for (const fs::path& file : others) EXPECT_TRUE(fs::exists(file)) << file;
  EXPECT_FALSE(fs::is_symlink(dangling));
  EXPECT_TRUE(log.Has("MAIN", "remove " + (directory / "mqtt_agent.1.log").string() +
                                  " failed, reason: Directory not empty"));
  EXPECT_EQ(log.Lines().size(), 1U) << log.Text();
}

}  // namespace
}  // namespace varnel::app
