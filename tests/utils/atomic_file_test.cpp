#include "utils/atomic_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/full_disk.h"
#include "support/temp_dir.h"
#include "utils/free_space.h"
#include "utils/private_directory.h"
#include "utils/temporary_name.h"

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

  {
    const test::FullDisk disk(4096);
    EXPECT_EQ(WriteFileAtomically(file, std::string(10'000, 'x')), std::errc::file_too_large);
  }
  EXPECT_EQ(ReadFile(file), "old");
  EXPECT_EQ(FilesIn(dir.Path()), 2U);
}

TEST(PrivateDirectoryTest, WhatAProgramWroteIsPublishedAndTheRestGoes) {
  const TempDir dir;
  std::error_code error;
  EXPECT_FALSE(PrivateDirectory::Create(dir / "missing", error));
  EXPECT_EQ(error, std::errc::no_such_file_or_directory);
  {
    auto made = PrivateDirectory::Create(dir.Path(), error);
    ASSERT_TRUE(made) << error.message();
    const PrivateDirectory moved = std::move(*made);
    EXPECT_EQ(ModeOf(moved.PathOf(".")), 0700U);
    std::ofstream(moved.PathOf("film")) << "new";
    std::ofstream(moved.PathOf("rest")) << "rest";
    fs::create_symlink("/etc/passwd", moved.PathOf("link"));
    EXPECT_EQ(moved.Publish("link", "film", 0644), std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(moved.Publish("none", "film", 0644), std::errc::no_such_file_or_directory);
    EXPECT_FALSE(moved.Publish("film", "film", 0644));
  }
  EXPECT_EQ(ReadFile(dir / "film"), "new");
  EXPECT_EQ(ModeOf(dir / "film"), 0644U);
  EXPECT_EQ(FilesIn(dir.Path()), 1U);
}

TEST(TemporaryNameTest, OnlyWhatIsOursIsALeftover) {
  const TempDir dir;
  dir.Write("victim/kept", "x");
  dir.Write(".varnel-abcdef.jpg", "x");
  dir.Write(".varnel-abcdeg/film", "x");
  dir.Write(".varnelabc", "a client's");
  fs::create_directory_symlink(dir / "victim", dir / ".varnel-abcdeh");
  dir.Write(".varnel-abcdej/made/by/somebody/else", "x");
  std::error_code error;
  const auto in_use = PrivateDirectory::Create(dir.Path(), error);
  ASSERT_TRUE(in_use) << error.message();
  size_t left = 4;
  if (::geteuid() == 0) {
    const fs::path foreign = dir.Write(".varnel-abcdei", "another user's");
    ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    ++left;
  }
  RemoveLeftovers(dir.Path());
  EXPECT_EQ(FilesIn(dir.Path()), left);
  RemoveLeftovers(dir.Path(), Leftovers::kAll);
  EXPECT_EQ(FilesIn(dir.Path()), left - 1) << "the one in use too";
  EXPECT_EQ(ReadFile(dir / "victim/kept"), "x");
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
