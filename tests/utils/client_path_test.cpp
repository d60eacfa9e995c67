#include "utils/client_path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/temp_dir.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

/// Directories: data (with a file, a FIFO and links), state, secret, secretary, library, drive.
class ClientPathTest : public testing::Test {
 protected:
  ClientPathTest() {
    for (const char* name : {"data/sub", "state", "secret", "secretary", "library", "drive"}) {
      fs::create_directories(dir_ / name);
    }
    dir_.Write("data/file.jpg", "x");
    ::mkfifo((dir_ / "data/fifo").c_str(), 0600);
    fs::create_directory_symlink(dir_ / "secret", dir_ / "data/to_secret");
    fs::create_directory_symlink(dir_ / "data", dir_ / "data/to_data");
    fs::create_directory_symlink(dir_ / "state", dir_ / "state_link");
    fs::create_symlink(dir_ / "secret/key", dir_ / "data/link_to_key");
    rules_.forbidden.push_back(dir_ / "secret");
    rules_.forbidden.push_back(dir_ / "lib*");
    rules_.own_state = {dir_ / "state_link", dir_ / "data/.version", dir_ / "data/to_data/later"};
    rules_.forbidden.push_back(dir_ / "data/to_data/.hid*");
  }

  /// Relative to the test's directory; "-" when refused.
  std::string Resolve(const ClientPathPolicy& policy, const std::string& path) const {
    const auto resolved = policy.Resolve(path.starts_with('@') ? root_ + path.substr(1) : path);
    return resolved ? resolved->lexically_relative(root_).string() : "-";
  }

  TempDir dir_;
  std::string root_ = fs::canonical(dir_.Path()).string() + "/";
  ClientPathRules rules_;
};

TEST_F(ClientPathTest, EachPathIsJudgedByWhereItReallyLeads) {
  const struct {
    std::string path;
    std::string resolved;
  } cases[] = {
      {"@data/new.jpg", "data/new.jpg"},
      {"@data/file.jpg", "data/file.jpg"},
      {"@data//sub/./../-x y\xC3\xA9.png", "data/-x y\xC3\xA9.png"},
      {"@data/to_data/sub/a.jpg", "data/sub/a.jpg"},
      {"@secretary/a.jpg", "secretary/a.jpg"},
      {"@data/.version.jpg", "data/.version.jpg"},
      {"@data/" + std::string(255, 'n'), "data/" + std::string(255, 'n')},
      // not a file name of ours
      {"", "-"},
      {"a.jpg", "-"},
      {"./a.jpg", "-"},
      {"-i", "-"},
      {"/", "-"},
      {"@data/", "-"},
      {"@data/sub", "-"},
      {"@data/sub/.", "-"},
      {"@data/sub/..", "-"},
      {"@missing/a.jpg", "-"},
      {"@data/file.jpg/a.jpg", "-"},
      {"@data/fifo", "-"},
      {"@data/link_to_key", "-"},
      {"@data/a\nb.jpg", "-"},
      {"@data/a\x7F.jpg", "-"},
      {std::string("@data/a\0.jpg", 12), "-"},
      {"@data/" + std::string(256, 'n'), "-"},
      {"/" + std::string(5000, 'n'), "-"},
      // forbidden, by each way there
      {"@secret/a.jpg", "-"},
      {"@data/../secret/a.jpg", "-"},
      {"@data/to_secret/a.jpg", "-"},
      {"@library/a.jpg", "-"},
      {"@state/a.jpg", "-"},
      {"@state_link/a.jpg", "-"},
      {"@data/.version", "-"},
      {"@data/to_data/.version", "-"},
      {"@data/.hidden", "-"},
      {"@data/later", "-"},
      {"/etc/cron.d/a", "-"},
      {"/tmp/../etc/a", "-"},
      {"//etc/a", "-"},
      {"/lib64/a", "-"},
      {"/libnew", "-"},
      {"/bin/a", "-"},
      {"/root/a", "-"},
      {"/var/tmp/a", "-"},
      {"/proc/self/root/etc/a", "-"},
      {"/dev/shm/a", "-"},
  };
  const ClientPathPolicy policy(rules_);
  for (const auto& test : cases) {
    EXPECT_EQ(Resolve(policy, test.path), test.resolved) << test.path;
  }
}

TEST_F(ClientPathTest, AllowedListNarrowsAndDrivesStayAllowed) {
  rules_.allowed = {dir_ / "data/sub/"};
  rules_.forbidden.push_back(dir_ / "drive");
  static bool mounted = true;
  rules_.is_mount_point = [](const fs::path&) { return mounted; };
  ClientPathPolicy policy(rules_);
  EXPECT_EQ(Resolve(policy, "@data/sub/a.jpg"), "data/sub/a.jpg");
  EXPECT_EQ(Resolve(policy, "@data/a.jpg"), "-");
  EXPECT_EQ(Resolve(policy, "@drive/a.jpg"), "-");
  policy.AllowDirectory(dir_ / "drive");
  EXPECT_EQ(Resolve(policy, "@drive/a.jpg"), "drive/a.jpg");
  EXPECT_EQ(Resolve(policy, "@drive/../secret/a.jpg"), "-");
  for (const char* nothing : {"", "/", "//", "drive"}) policy.AllowDirectory(nothing);
  EXPECT_EQ(Resolve(policy, "@data/a.jpg"), "-");
  mounted = false;
  EXPECT_EQ(Resolve(policy, "@drive/a.jpg"), "-") << "unplugged";
  EXPECT_TRUE(IsMountPoint("/proc"));
  EXPECT_FALSE(IsMountPoint(dir_ / "drive"));
}

}  // namespace
}  // namespace varnel::utils
