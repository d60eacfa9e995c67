#include "utils/atomic_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "support/temp_dir.h"
#include "utils/free_space.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;
using test::ReadFile;
using test::TempDir;

size_t FilesIn(const fs::path& directory) {
  const fs::directory_iterator all(directory);
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

mode_t ModeOf(const fs::path& path) {
  struct stat info {};
  ::stat(path.c_str(), &info);
  return info.st_mode & 07777U;
}

TEST(AtomicFileTest, LinkIsReplacedNotFollowed) {
  const TempDir dir;
  const fs::path victim = dir.Write("victim", "precious");
  fs::create_symlink(victim, dir / "link");
  EXPECT_FALSE(WriteFileAtomically(dir / "link", std::string(100'000, 'x'), 0600));
  EXPECT_EQ(ReadFile(victim), "precious");
  EXPECT_FALSE(fs::is_symlink(dir / "link"));
  EXPECT_EQ(ReadFile(dir / "link"), std::string(100'000, 'x'));
  EXPECT_EQ(ModeOf(dir / "link"), 0600U);
}

TEST(AtomicFileTest, FailureKeepsTheOldFileAndLeavesNoTemporary) {
  const TempDir dir;
  const fs::path file = dir.Write("state", "old");
  fs::create_directory(dir / "taken");
  EXPECT_EQ(WriteFileAtomically(dir / "missing/state", "new"),
            std::errc::no_such_file_or_directory);
  EXPECT_EQ(WriteFileAtomically(dir / "taken", "new"), std::errc::is_a_directory);

  // A write that fails half-way, as on a full disk.
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small = {4096, before.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &small);
  const std::error_code error = WriteFileAtomically(file, std::string(10'000, 'x'));
  ::setrlimit(RLIMIT_FSIZE, &before);
  ::signal(SIGXFSZ, SIG_DFL);
  EXPECT_EQ(error, std::errc::file_too_large);
  EXPECT_EQ(ReadFile(file), "old");
  EXPECT_EQ(FilesIn(dir.Path()), 2U);
}

TEST(ReplacementFileTest, CommitPublishesAndDestructionDiscards) {
  const TempDir dir;
  const fs::path target = dir.Write("photo.jpg", "old");
  std::error_code error;
  {
    auto discarded = ReplacementFile::Create(target, 0644, error);
    ASSERT_TRUE(discarded);
    EXPECT_EQ(discarded->TemporaryPath().extension(), ".jpg");
    EXPECT_EQ(discarded->TemporaryPath().parent_path(), dir.Path());
    const ReplacementFile moved = std::move(*discarded);
    EXPECT_EQ(FilesIn(dir.Path()), 2U);
  }
  EXPECT_EQ(FilesIn(dir.Path()), 1U);
  {
    auto committed = ReplacementFile::Create(target, 0644, error);
    ASSERT_TRUE(committed);
    std::ofstream(committed->TemporaryPath()) << "new";
    EXPECT_FALSE(committed->Commit());
  }
  EXPECT_EQ(ReadFile(target), "new");
  EXPECT_EQ(ModeOf(target), 0644U);
  EXPECT_EQ(FilesIn(dir.Path()), 1U);
}

TEST(ReplacementFileTest, TheTemporaryHasTheEndingWhereverItsNameFits) {
  const TempDir dir;
  const std::string longest = "a." + std::string(253, 'n');
  const std::pair<std::string, std::string> cases[] = {
      {"p.b.png", ".png"}, {".jpg", ".jpg"}, {"p", ""}, {"p.", "."}, {longest, ""}};
  for (const auto& [name, ending] : cases) {
    std::error_code error;
    const auto file = ReplacementFile::Create(dir / name, 0644, error);
    ASSERT_TRUE(file) << name << ": " << error.message();
    EXPECT_EQ(file->TemporaryPath().filename().string().substr(14), ending);
  }
  EXPECT_FALSE(WriteFileAtomically(dir / longest, "x"));
  EXPECT_EQ(FileEnding(longest), longest.substr(1));
}

TEST(ReplacementFileTest, FailuresAreErrors) {
  const TempDir dir;
  std::error_code error;
  EXPECT_FALSE(ReplacementFile::Create(dir / "missing/x.jpg", 0644, error));
  EXPECT_EQ(error, std::errc::no_such_file_or_directory);

  auto file = ReplacementFile::Create(dir / "x.jpg", 0644, error);
  ASSERT_TRUE(file);
  fs::remove(file->TemporaryPath());
  EXPECT_EQ(file->Commit(), std::errc::no_such_file_or_directory);
  fs::create_symlink("/etc/passwd", file->TemporaryPath());
  EXPECT_EQ(file->Commit(), std::errc::too_many_symbolic_link_levels);
  EXPECT_FALSE(fs::exists(dir / "x.jpg"));
}

TEST(ReadSmallFileTest, ReadsRegularFilesUpToTheLimit) {
  const TempDir dir;
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(ReadSmallFile(dir.Write("full", std::string(9000, 'a')), 9000)->size(), 9000U);
  EXPECT_EQ(ReadSmallFile(dir.Write("over", std::string(9001, 'a')), 9000), std::nullopt);
  EXPECT_EQ(ReadSmallFile(dir.Write("empty", ""), 10), "");
  EXPECT_TRUE(ReadSmallFile("/proc/self/status", 100'000)->starts_with("Name:"));
  for (const fs::path& path : {dir / "missing", dir / "fifo", dir.Path(), fs::path("/dev/zero")}) {
    EXPECT_EQ(ReadSmallFile(path, 10), std::nullopt) << path;
  }
}

TEST(FreeSpaceTest, ComparesWithWhatIsLeft) {
  const TempDir dir;
  EXPECT_TRUE(EnoughFreeSpace(dir.Path(), 0));
  EXPECT_TRUE(EnoughFreeSpace(dir.Path(), 1));
  EXPECT_FALSE(EnoughFreeSpace(dir.Path(), UINT64_MAX));
  EXPECT_TRUE(EnoughFreeSpace(dir / "missing", UINT64_MAX));
}

}  // namespace
}  // namespace varnel::utils
