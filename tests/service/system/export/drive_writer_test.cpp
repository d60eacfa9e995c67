// An archive on its way to a drive that cannot be trusted: what has its final name there is whole,
// and nothing else of ours stays.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "service/system/export/drive_writer.h"
#include "service/system/export/export_instruction.h"
#include "service/system/export/mounted_drive.h"
#include "support/full_disk.h"
#include "support/refuse_calls.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

class DriveWriterTest : public testing::Test {
 protected:
  utils::HeldDirectory Drive() const {
    std::error_code error;
    auto drive = utils::HeldDirectory::OpenWithoutLinks(dir_ / "drive", error);
    return *std::move(drive);
  }
  std::error_code Write(const ExportNames& names = {"a"}, bool stopped = false) const {
    const auto drive = Drive();
    return DriveWriter(drive, [stopped] { return stopped; }).Write(archive_, names);
  }
  /// What comes of it in a process of its own that something is wrong with.
  template <class Spoil>
  int WriteIn(Spoil spoil) const {
    const pid_t child = ::fork();
    if (child == 0) {
      spoil();
      ::_exit(Write().value());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  std::set<std::string> Names() const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_ / "drive"))
      names.insert(entry.path().filename());
    return names;
  }

  const test::TempDir dir_;
  const fs::path drive_ = dir_.Write("drive/theirs", "x").parent_path();
  const fs::path archive_ = dir_.Write("archive", std::string(20 << 20U, 'a') + "end");
};

TEST_F(DriveWriterTest, FailuresLeaveNothing) {
  if (!test::CanRefuseCalls()) GTEST_SKIP() << "no seccomp";
  const std::pair<unsigned, unsigned> refused[] = {{SYS_fsync, EIO},
                                                   {SYS_syncfs, EIO},
                                                   {SYS_renameat2, EIO},
                                                   {SYS_pread64, EIO},
                                                   {SYS_sync_file_range, EIO}};
  for (const auto& [call, error] : refused) {
    EXPECT_EQ(WriteIn([c = call, e = error] { test::RefuseCalls({c}, e); }), int(error)) << call;
    EXPECT_EQ(Names(), std::set<std::string>{"theirs"}) << call;
  }
  EXPECT_EQ(WriteIn([] { static const test::FullDisk full(5 << 20U); }), EFBIG);
  EXPECT_EQ(Write({"a"}, true), std::errc::operation_canceled);
  EXPECT_EQ(Names(), std::set<std::string>{"theirs"});
}

TEST_F(DriveWriterTest, NothingThatIsThereIsTouched) {
  if (!test::CanRefuseCalls()) GTEST_SKIP() << "no seccomp";
  const auto take = [&](const std::string& name, int kind) {
    if (kind == 0) fs::create_symlink("../archive", drive_ / name);
    if (kind == 1) fs::create_directory(drive_ / name);
    if (kind == 2) (void)::mkfifo((drive_ / name).c_str(), 0600);
  };
  const std::string before = test::ReadFile(archive_);
  for (int kind = 0; kind < 3; ++kind) {
    for (const std::string ending : {".tar.gz", ".json"}) {
      take("a" + ending, kind);
      EXPECT_FALSE(DriveWriter(Drive(), [] { return false; }).IsFree({"a"}));
      EXPECT_EQ(Write(), std::errc::file_exists);
      EXPECT_EQ(WriteIn([] { test::RefuseCalls({SYS_renameat2}, EINVAL); }), EEXIST);
      EXPECT_EQ(Names(), (std::set<std::string>{"theirs", "a" + ending}));
      fs::remove(drive_ / ("a" + ending));
    }
  }
  EXPECT_TRUE(test::ReadFile(archive_) == before);
  EXPECT_EQ(WriteIn([] { test::RefuseCalls({SYS_renameat2}, EINVAL); }), 0) << "an older kernel";
  EXPECT_TRUE(test::ReadFile(drive_ / "a.tar.gz") == before);
}

TEST_F(DriveWriterTest, ADirectoryOfOurOwnDiskIsNoDrive) {
  EXPECT_EQ(OpenMountedDrive(drive_).Why(), "nothing is mounted there");
  EXPECT_EQ(OpenMountedDrive("/").Why(), "no mount directory");
  EXPECT_TRUE(OpenMountedDrive("/proc"));
}

/// As before Linux 5.6; what a newer kernel does boards show.
TEST_F(DriveWriterTest, WithoutTheKernelsHelpLinksLeadNowhereToo) {
  if (!test::CanRefuseCalls()) GTEST_SKIP() << "no seccomp";
  const auto asks = [this] {
    const pid_t child = ::fork();
    if (child == 0) {
      test::RefuseCalls({SYS_openat2}, ENOSYS);
      ::_exit(AsksForExport(Drive(), utils::SystemClock::Instance()) ? 1 : 0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 1;
  };
  const fs::path order = dir_.Write("outside/export_log.json", R"({"action": "export_log"})");
  fs::create_symlink("../outside", drive_ / ".maintenance");
  EXPECT_FALSE(asks());
  fs::remove(drive_ / ".maintenance");
  fs::create_directory(drive_ / ".maintenance");
  EXPECT_FALSE(asks());
  fs::create_symlink(order, drive_ / ".maintenance/export_log.json");
  EXPECT_FALSE(asks());
  fs::remove(drive_ / ".maintenance/export_log.json");
  fs::copy(order, drive_ / ".maintenance");
  EXPECT_TRUE(asks());
}

}  // namespace
}  // namespace varnel::service
