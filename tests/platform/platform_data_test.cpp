#include "platform/platform_data.h"

#include <gtest/gtest.h>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::platform {
namespace {

namespace fs = std::filesystem;
using hal_adapter::HalStatus;

constexpr HalStatus kOk = HalStatus::kSuccess;

class PlatformDataTest : public testing::Test {
 protected:
  PlatformDataTest() {
    dir_.Write("logs/a.log", "hello");
    dir_.Write("plain-file", "");
    dir_.Write("out/old", "");
    types_ = {{"Collect log platform data",
               {{dir_ / "missing", "missing.tar.gz"},
                {dir_ / "plain-file", "file.tar.gz"},
                {dir_ / "logs", std::string(600, 'x')},
                {dir_ / "logs", "logs.tar.gz"}},
               dir_ / "plain-file",
               ".settings"}};
    board_.types = &types_;
  }

  HalStatus Collect(uint32_t type, const std::string& out) {
    return collect_platform_data(board_, type, out.c_str());
  }

  test::LogCapture log_;
  test::TempDir dir_;
  std::vector<DataType> types_;
  DataBoard board_;
};

TEST_F(PlatformDataTest, ProgramsGetTheirArgumentsAndFailuresAreNamed) {
  const fs::path calls = dir_ / "calls";
  board_.tar = dir_.WriteScript("tar", "echo tar $* >>" + calls.string() + "; exit 2");
  board_.cp = dir_.WriteScript("cp", "echo cp $* >>" + calls.string() + "; exit 1");
  const std::string out = dir_ / "out";
  EXPECT_EQ(Collect(0, out), kOk);
  EXPECT_EQ(test::ReadFile(calls), "tar zhcvf " + out + "/logs.tar.gz -C " +
                                       (dir_ / "logs").string() + " .\ncp -f " +
                                       (dir_ / "plain-file").string() + " " + out + "/.settings\n");
  EXPECT_TRUE(log_.Has("IMSYS", "Collect platform data (logs.tar.gz) failed"));
  EXPECT_TRUE(log_.Has("IMSYS", "Collect platform data (.settings) failed"));
}

TEST_F(PlatformDataTest, LogsThatGrowAreKeptAndWhatIsCutShortIsRemoved) {
  types_ = {{"", {{dir_ / "logs", "logs.tar.gz"}}}};
  const std::string out = dir_ / "out";
  const char* failed = "Collect platform data (logs.tar.gz) failed";
  size_t failures = 0;
  for (const auto& [script, kept] :
       {std::pair("echo x >$2; echo 'file changed as we read it' >&2; exit 1", true),
        {"echo x >$2; exit 2", true},
        {"echo x >$2; kill -9 $$", false}}) {
    board_.tar = dir_.WriteScript("tar", script);
    EXPECT_EQ(Collect(0, out), kOk);
    EXPECT_EQ(log_.Count("IMSYS", failed), ++failures);
    EXPECT_EQ(fs::exists(dir_ / "out/logs.tar.gz"), kept) << script;
  }
  EXPECT_TRUE(log_.Has("IMSYS", "file changed as we read it\\x0a"));
  board_.has_space = [](const fs::path&) { return false; };
  EXPECT_EQ(Collect(0, out), kOk);
  EXPECT_EQ(log_.Count("IMSYS", failed), ++failures);
}

std::string Listing(const fs::path& archive) {
  const std::string listing = archive.string() + ".txt";
  const std::string command = "tar tzf " + archive.string() + " | sort >" + listing;
  return std::system(command.c_str()) == 0 ? test::ReadFile(listing) : "no archive";
}

TEST_F(PlatformDataTest, EachTypeOfTheBoardMakesItsArchives) {
  types_ = board_data_types();
  ASSERT_EQ(types_.size(), 7U);
  for (uint32_t number = 0; number < types_.size(); ++number) {
    DataType& type = types_[number];
    const fs::path out = dir_ / ("out" + std::to_string(number));
    fs::create_directory(out);
    for (DataArchive& archive : type.archives) {
      dir_.Write(archive.source.substr(1) + "/of" + std::to_string(number), "");
      archive.source.insert(0, dir_.Path());
    }
    if (!type.file.empty()) type.file = dir_.Write(type.file.substr(1), "settings");
    EXPECT_EQ(Collect(number, out), kOk);
    EXPECT_TRUE(log_.Has("IMSYS", type.announcement));
    const auto made = std::distance(fs::directory_iterator(out), {});
    EXPECT_EQ(static_cast<size_t>(made), type.archives.size() + (number == 1 ? 1 : 0)) << number;
  }
  EXPECT_EQ(Listing(dir_ / "out0/shaper_calibrate.tar.gz"), "./\n./of0\n");
  EXPECT_EQ(Listing(dir_ / "out2/mpt.tar.gz"), "./\n./of2\n");
  EXPECT_EQ(Listing(dir_ / "out3/coredump.tar.gz"), "./\n./of3\n");
  EXPECT_EQ(Listing(dir_ / "out6/var_log.tar.gz"), "./\n./of6\n");
  EXPECT_EQ(test::ReadFile(dir_ / "out1/.fluidd"), "settings");
}

TEST_F(PlatformDataTest, APathOf511CharactersIsTheLongest) {
  board_.tar = dir_.WriteScript("tar", "exit 2");
  const std::string out = (dir_ / "out").string();
  const std::string longest(511 - out.size() - 1, 'x');
  types_ = {{"", {{dir_ / "logs", longest}, {dir_ / "logs", longest + "x"}}}};
  EXPECT_EQ(Collect(0, out), kOk);
  EXPECT_EQ(log_.Count("IMSYS", "Collect platform data (" + longest + ") failed"), 1U);
  EXPECT_EQ(log_.Count("IMSYS", "The target output path too long"), 1U);
}

}  // namespace
}  // namespace varnel::platform
