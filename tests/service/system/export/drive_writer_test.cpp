// An archive on its way to a drive that cannot be trusted: what has its final name there is whole,
// and nothing else of ours stays.
#include "service/system/export/drive_writer.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "service/system/export/export_instruction.h"
#include "service/system/export/mounted_drive.h"
#include "support/full_disk.h"
#include "support/refuse_calls.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class DriveWriterTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!test::CanRefuseCalls()) GTEST_SKIP() << "no seccomp";
  }
  utils::HeldDirectory Drive() const {
    std::error_code error;
    auto drive = utils::HeldDirectory::OpenWithoutLinks(drive_, error);
    return *std::move(drive);
  }
  int Write(bool stopped = false) const {
    const auto drive = Drive();
    return DriveWriter(drive, [stopped] { return stopped; }).Write(archive_, {"a"}).value();
  }
  bool Asks() const { return AsksForExport(Drive(), utils::SystemClock::Instance()); }
  /// The result of `work` in a process of its own in which something is wrong.
  template <class Work>
  static int With(const std::function<void()>& spoil, Work work) {
    const pid_t child = ::fork();
    if (child == 0) {
      spoil();
      ::_exit(work());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int WriteWithout(unsigned call, unsigned error) const {
    return With([&] { test::RefuseCalls({call}, error); }, [this] { return Write(); });
  }
  Names Found() const {
    Names names;
    for (const auto& entry : fs::directory_iterator(drive_))
      names.push_back(entry.path().filename());
    return names;
  }

  const test::TempDir dir_;
  const fs::path drive_ = dir_.Write("drive/theirs", "x").parent_path();
  const fs::path archive_ = dir_.Write("archive", std::string(20'971'523, 'a'));
};

TEST_F(DriveWriterTest, FailuresLeaveNothing) {
  for (const unsigned call :
       {SYS_fsync, SYS_syncfs, SYS_renameat2, SYS_pread64, SYS_sync_file_range}) {
    EXPECT_EQ(WriteWithout(call, EIO), EIO) << call;
    EXPECT_EQ(Found(), Names{"theirs"}) << call;
  }
  const auto fill = [] { static const test::FullDisk full(5 << 20U); };
  EXPECT_EQ(With(fill, [this] { return Write(); }), EFBIG);
  EXPECT_EQ(Write(true), ECANCELED);
  EXPECT_EQ(Found(), Names{"theirs"});
  EXPECT_EQ(OpenMountedDrive(drive_).Why(), "nothing is mounted there");
  EXPECT_EQ(OpenMountedDrive("/").Why(), "no mount directory");
}

TEST_F(DriveWriterTest, ANameThatIsTakenMeanwhileStaysTheirs) {
  for (const std::string name : {"a.tar.gz", "a.json"}) {
    fs::create_symlink("../archive", drive_ / name);
    EXPECT_EQ(Write(), EEXIST);
    EXPECT_EQ(WriteWithout(SYS_renameat2, EINVAL), EEXIST) << "an older file system";
    EXPECT_THAT(Found(), testing::UnorderedElementsAre("theirs", name));
    fs::remove(drive_ / name);
  }
  EXPECT_EQ(WriteWithout(SYS_renameat2, EINVAL), 0);
  EXPECT_TRUE(test::ReadFile(drive_ / "a.tar.gz") == test::ReadFile(archive_));
}

/// What newer kernels do boards show.
TEST_F(DriveWriterTest, BeforeLinux56LinksLeadNowhereToo) {
  const auto asks = [this] {
    return With([] { test::RefuseCalls({SYS_openat2}, ENOSYS); }, [this] { return Asks(); });
  };
  const fs::path order = dir_.Write("outside/export_log.json", R"({"action": "export_log"})");
  fs::create_symlink("../outside", drive_ / ".maintenance");
  EXPECT_FALSE(asks());
  fs::remove(drive_ / ".maintenance");
  fs::create_directory(drive_ / ".maintenance");
  fs::create_symlink(order, drive_ / ".maintenance/export_log.json");
  EXPECT_FALSE(asks());
  fs::remove(drive_ / ".maintenance/export_log.json");
  fs::copy(order, drive_ / ".maintenance");
  EXPECT_TRUE(asks());
}

}  // namespace
}  // namespace varnel::service
