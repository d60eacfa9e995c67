// A process that is killed, or a drive whose power is cut, at any of its changes to the drive, and
// a drive that gives back other bytes than it was given.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "service/system/export/drive_writer.h"
#include "support/disk_image.h"
#include "support/disk_trace.h"
#include "support/temp_dir.h"
#include "utils/file_digest.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

const std::string kArchive(100'000, 'a');

struct World {
  /// Traced: what it comes to is seen on the drive.
  bool Write(const std::function<void(const test::DiskCall&)>& on_call) const {
    return test::TraceDisk(
        [this] {
          std::error_code error;
          const auto drive = utils::HeldDirectory::OpenWithoutLinks(disk.Path(), error);
          (void)DriveWriter(*drive, [] { return false; }).Write(archive, {"a"});
        },
        on_call);
  }

  const test::TempDir disk;
  const test::TempDir own;
  const fs::path archive = own.Write("archive", kArchive);
};

TEST(DriveKillTest, WhatHasAFinalNameIsWhole) {
  const World world;
  test::DiskRecorder recorder(world.disk.Path());
  std::set<test::DiskImage> images;
  EXPECT_TRUE(world.Write([&](const test::DiskCall& call) {
    if (call.sync && call.made) recorder.Synced(call.thread, call.descriptor);
    images.insert(recorder.WithAllNames(true));
    images.insert(recorder.WithAllNames());
    images.insert(recorder.WithSyncedNames());
  }));
  EXPECT_GT(images.size(), 5U);
  const std::string sum = utils::DigestOf(world.archive).sha256;
  size_t notes = 0;
  for (const test::DiskImage& image : images) {
    for (const auto& [name, content] : image) {
      if (name == "a.tar.gz") {
        EXPECT_TRUE(content == "f" + kArchive);
      } else if (name == "a.json") {
        ++notes;
        EXPECT_EQ(image.count("a.tar.gz"), 1U);
        EXPECT_EQ(nlohmann::json::parse(content.substr(1)),
                  (nlohmann::json{{"file", "a.tar.gz"}, {"size", 100'000}, {"sha256", sum}}));
      } else {
        EXPECT_TRUE(name.starts_with(".varnel-")) << name;
      }
    }
  }
  EXPECT_GT(notes, 0U);
}

TEST(DriveKillTest, BytesThatComeBackChangedGetNoName) {
  for (int spoiled = 1; spoiled <= 2; ++spoiled) {
    const World world;
    int files = 0;
    EXPECT_TRUE(world.Write([&](const test::DiskCall& call) {
      const fs::path file =
          "/proc/" + std::to_string(call.thread) + "/fd/" + std::to_string(call.descriptor);
      if (!call.sync || !call.made || !fs::is_regular_file(file) || ++files != spoiled) return;
      std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(20).put('?');
    }));
    EXPECT_EQ(files, spoiled);
    EXPECT_TRUE(fs::is_empty(world.disk.Path())) << "file " << spoiled;
  }
}

}  // namespace
}  // namespace varnel::service
