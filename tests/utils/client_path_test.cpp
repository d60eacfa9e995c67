#include "utils/client_path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "support/refuse_calls.h"
#include "support/temp_dir.h"
#include "utils/new_file.h"
#include "utils/temporary_name.h"

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
    rules_.own_places = {dir_ / "state_link", dir_ / "data/.version", dir_ / "data/to_data/later",
                         dir_ / "data/.up-*", ""};
    rules_.forbidden.push_back(dir_ / "data/to_data/.hid*");
    rules_.allowed = {"/"};
  }

  /// Relative to the test's directory; "-" when refused.
  std::string Resolve(const ClientPathPolicy& policy, const std::string& path) const {
    const auto resolved = policy.Resolve(path.starts_with('@') ? root_ + path.substr(1) : path);
    return resolved ? resolved->Path().lexically_relative(root_).string() : "-";
  }

  TempDir dir_;
  std::string root_ = fs::canonical(dir_.Path()).string() + "/";
  ClientPathRules rules_;
};

class ClientPathDeathTest : public ClientPathTest {
 public:
  void ExpectEachJudged() const;
  void ExpectSwapsLeadNowhere() const;
  /// In a process whose kernel lacks something.
  void ExpectAsWellWithout(void (*refuse)(), void (ClientPathDeathTest::*expect)() const) const {
    if (!test::CanRefuseCalls()) GTEST_SKIP() << "no seccomp";
    EXPECT_EXIT(
        {
          refuse();
          (this->*expect)();
          ::_exit(HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
  }
};

void ClientPathDeathTest::ExpectEachJudged() const {
  const std::pair<std::string, std::string> accepted[] = {
      {"@data/new.jpg", "data/new.jpg"},
      {"@data/file.jpg", "data/file.jpg"},
      {"@data//sub/./../-x y\xC3\xA9.png", "data/-x y\xC3\xA9.png"},
      {"@data/to_data/sub/a.jpg", "data/sub/a.jpg"},
      {"@secretary/a.jpg", "secretary/a.jpg"},
      {"@data/.version.jpg", "data/.version.jpg"},
      {"@data/" + std::string(255, 'n'), "data/" + std::string(255, 'n')},
  };
  const std::string refused[] = {
      // not a file name of ours
      "", "a.jpg", "./a.jpg", "-i", "/", "@data/", "@data/sub", "@data/sub/.", "@data/sub/..",
      "@missing/a.jpg", "@data/file.jpg/a.jpg", "@data/fifo", "@data/link_to_key", "@data/a\nb.jpg",
      "@data/a\x7F.jpg", std::string("@data/a\0.jpg", 12), "@data/" + std::string(256, 'n'),
      "/" + std::string(5000, 'n'),
      // forbidden, by each way there
      "@secret/a.jpg", "@data/../secret/a.jpg", "@data/to_secret/a.jpg", "@library/a.jpg",
      "@state/a.jpg", "@state_link/a.jpg", "@data/.version", "@data/to_data/.version",
      "@data/.hidden", "@data/.up-12", "@data/.varnel-12", "@data/.varnel-abcdef/a", "@data/later",
      "/etc/cron.d/a", "/tmp/../etc/a", "//etc/a", "/lib64/a", "/libnew", "/bin/a", "/root/a",
      "/var/tmp/a", "/proc/self/root/etc/a", "/dev/shm/a"};
  const ClientPathPolicy policy(rules_);
  for (const auto& [path, resolved] : accepted) EXPECT_EQ(Resolve(policy, path), resolved) << path;
  for (const std::string& path : refused) EXPECT_EQ(Resolve(policy, path), "-") << path;
}

TEST_F(ClientPathDeathTest, EachPathIsJudgedByWhereItReallyLeadsOnEachKernel) {
  fs::create_directory(dir_ / "data/.varnel-abcdef");
  ExpectEachJudged();
  ExpectAsWellWithout([] { test::RefuseCalls({SYS_openat2}, ENOSYS); },
                      &ClientPathDeathTest::ExpectEachJudged);
}

TEST_F(ClientPathTest, ClientsWriteWhereTheMakerSaysAndToDrives) {
  rules_.allowed = {dir_ / "data/sub/"};
  rules_.forbidden.push_back(dir_ / "drive");
  static bool mounted = true;
  const auto drives = std::make_shared<ReportedDrives>([](const fs::path&) { return mounted; });
  const ClientPathPolicy policy(rules_, drives);
  EXPECT_EQ(Resolve(policy, "@data/sub/a.jpg"), "data/sub/a.jpg");
  EXPECT_EQ(Resolve(policy, "@data/a.jpg"), "-");
  EXPECT_EQ(Resolve(policy, "@drive/a.jpg"), "-");
  drives->Add(dir_ / "drive");
  rules_.allowed = {};
  const ClientPathPolicy drives_only(rules_, drives);
  EXPECT_EQ(Resolve(drives_only, "@data/sub/a.jpg"), "-");
  EXPECT_EQ(Resolve(drives_only, "@drive/a.jpg"), "drive/a.jpg");
  EXPECT_EQ(Resolve(policy, "@drive/../secret/a.jpg"), "-");
  for (const char* nothing : {"", "/", "//", "drive"}) drives->Add(nothing);
  EXPECT_EQ(Resolve(policy, "@data/a.jpg"), "-");
  mounted = false;
  EXPECT_EQ(Resolve(policy, "@drive/a.jpg"), "-") << "unplugged";
  EXPECT_TRUE(IsMountPoint("/proc"));
  EXPECT_FALSE(IsMountPoint(dir_ / "drive"));
}

/// The place is judged and held; what its name leads to changes before the file is whole.
void ClientPathDeathTest::ExpectSwapsLeadNowhere() const {
  const ClientPathPolicy policy(rules_);
  const auto write = [&](const std::string& path, const std::function<void()>& meanwhile) {
    const auto place = policy.Resolve(root_ + path);
    std::error_code error;
    auto file = place ? NewFile::Create(*place, error) : std::nullopt;
    if (!file) return std::make_error_code(std::errc::invalid_argument);
    EXPECT_EQ(::write(file->Fd(), "new", 3), 3);
    meanwhile();
    return file->Publish(0644);
  };
  EXPECT_FALSE(write("data/sub/other.jpg", [&] {
    EXPECT_FALSE(write("data/sub/meanwhile.jpg", [] {}))
        << "does not take the other for a leftover";
  }));
  EXPECT_FALSE(write("data/file.jpg", [] {}));
  EXPECT_EQ(test::ReadFile(dir_ / "data/file.jpg") + test::ReadFile(dir_ / "data/sub/other.jpg"),
            "newnew");
  EXPECT_EQ(fs::status(dir_ / "data/file.jpg").permissions(), fs::perms(0644));
  EXPECT_EQ(write("data/sub/late", [&] { fs::create_directory(dir_ / "data/sub/late"); }),
            std::errc::is_a_directory);
  EXPECT_EQ(write("data/sub/swapped.jpg",
                  [&] {
                    fs::rename(dir_ / "data/sub", dir_ / "data/away");
                    fs::create_directory_symlink(dir_ / "secret", dir_ / "data/sub");
                  }),
            std::errc::no_such_file_or_directory);
  EXPECT_TRUE(fs::is_empty(dir_ / "secret"));
  EXPECT_FALSE(fs::exists(dir_ / "data/away/swapped.jpg"));
  for (const auto& entry : fs::recursive_directory_iterator(dir_.Path()))
    EXPECT_FALSE(entry.path().filename().string().starts_with(kTemporaryPrefix)) << entry.path();
  fs::remove(dir_ / "data/sub");
  fs::rename(dir_ / "data/away", dir_ / "data/sub");
  fs::remove(dir_ / "data/sub/late");
}

TEST_F(ClientPathDeathTest, ASwapAfterTheJudgementWritesNowhereElse) {
  ExpectSwapsLeadNowhere();
  ExpectAsWellWithout(
      [] {
        test::RefuseCalls({SYS_linkat, SYS_sendfile}, EINVAL);
      },
      &ClientPathDeathTest::ExpectSwapsLeadNowhere);
  dir_.Write("data/sub/.varnel-abcdef", "where files have names an interruption leaves one");
  ExpectAsWellWithout(test::RefuseFilesWithoutNames, &ClientPathDeathTest::ExpectSwapsLeadNowhere);
}

}  // namespace
}  // namespace varnel::utils
