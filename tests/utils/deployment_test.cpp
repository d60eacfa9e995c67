#include "utils/deployment.h"

#include <gmock/gmock.h>

#include <algorithm>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::utils {
namespace {

using test::LogCapture;
using test::TempDir;
using testing::HasSubstr;

TEST(DeploymentTest, EachMistakeGivesOneWarningAndTheDefaultAndNoFileNone) {
  const std::pair<std::string, const char*> cases[] = {
      {R"({"min_free_space_mib": "64"})", "min_free_space_mib must be a whole number"},
      {R"({"min_free_space_mib": -1})", "min_free_space_mib must be"},
      {R"({"min_free_space_mib": 1.5})", "min_free_space_mib must be"},
      {R"({"min_free_space_mib": 18446744073709551615})", "min_free_space_mib must be"},
      {R"({"client_write_directories": "/data"})", "client_write_directories must be a list"},
      {R"({"client_write_directories": ["/data", "data"]})", "client_write_directories must be"},
      {R"({"client_write_directories": ["/a\u0000b"]})", "client_write_directories must be"},
      {R"({"identity": "/dev/mmcblk0"})", "identity must be an object"},
      {R"({"identity": {"device": ""}})", "identity.device must be an absolute path"},
      {R"({"identity": {"offset": 1099511627777}})", "identity.offset must be a whole number"},
      {R"({"identity": {"key_file": "key"}})", "identity.key_file must be an absolute path or"},
      {R"({"identity": {"key_file": null}})", "identity.key_file must be"},
      {R"({"identity": {"key": ""}})", "unknown key identity.key"},
      {R"({"min_free\nspace": 1})", R"(unknown key min_free\x0aspace)"},
      {"[]", "is no JSON object"},
      {"{\"min_free_space_mib\": 1", "is no JSON object"},
      {"", "is no JSON object"},
      {std::string(100'000, '['), "is no JSON object"},
      {std::string((1U << 20U) + 1, ' '), "is over 1 MiB"},
  };
  const TempDir dir;
  {
    const LogCapture log;
    EXPECT_EQ(LoadDeployment(dir / "missing.json").min_free_space_mib, 64U);
    const auto none = LoadDeployment(dir.Write("d.json", R"({"client_write_directories": []})"));
    EXPECT_TRUE(none.client_write_directories.empty());
    EXPECT_EQ(log.Text(), "");
  }
  for (const auto& [content, warning] : cases) {
    const LogCapture log;
    const Deployment deployment = LoadDeployment(dir.Write("d.json", content));
    EXPECT_EQ(deployment.min_free_space_mib, 64U);
    EXPECT_THAT(deployment.client_write_directories, testing::ElementsAre("/userdata", "/tmp"));
    EXPECT_EQ(deployment.identity_device, "/dev/mmcblk0");
    EXPECT_EQ(deployment.identity_offset, 26'624U);
    EXPECT_EQ(deployment.identity_key_file, "");
    const std::string text = log.Text();
    EXPECT_THAT(text, HasSubstr(warning));
    EXPECT_THAT(text, testing::StartsWith("W [MAIN:"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  }
  const std::string key = dir.Write("key", "k");
  for (const auto& [mode, warnings] : {std::pair(0600, 0U), {0640, 0U}, {0604, 1U}}) {
    const LogCapture log;
    std::filesystem::permissions(key, std::filesystem::perms(mode));
    (void)LoadDeployment(dir.Write("d.json", R"({"identity": {"key_file": ")" + key + "\"}}"));
    EXPECT_EQ(log.Count("MAIN", "deployment settings: identity.key_file " + key +
                                    " is readable by everyone"),
              warnings);
  }
}

}  // namespace
}  // namespace varnel::utils
