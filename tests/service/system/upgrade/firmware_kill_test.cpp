// A process that is killed, or whose power is cut, at any of its changes to the disk while it
// fetches a firmware: wrong bytes never count as downloaded, and the next request ends with the
// right ones and nothing else.
#include <gmock/gmock.h>

#include <set>

#include "service/system/upgrade/firmware_world.h"
#include "support/disk_image.h"
#include "support/disk_trace.h"

namespace varnel::service {
namespace {

const FirmwareWorld::Fault kCut = [](PackageAnswer& answer) { answer.sends = 20'000; };
const FirmwareWorld::Fault kNothing = [](PackageAnswer& answer) { answer.sends = 0; };

void Fetch(FirmwareWorld& world) {
  world.Spoil({kCut, kNothing, kNothing, kNothing});
  (void)world.Download();
  world.Spoil({});
  (void)world.Download();
}

TEST(FirmwareKillTest, AnInterruptionCostsTimeOnly) {
  FirmwareWorld world(50'000);
  // Of another version, which goes.
  (void)world.dir.Write(".tmp_upgrade/1.0.0.bin", "old");
  const auto in_use = [](const std::string&) { return false; };
  test::DiskRecorder recorder(world.dir.Path());
  std::set<test::DiskImage> images;
  const auto record = [&](const test::DiskCall& call) {
    if (call.sync && call.made) recorder.Synced(call.thread, call.descriptor);
    images.insert(recorder.WithAllNames(true));
    images.insert(recorder.WithAllNames());
    images.insert(recorder.WithSyncedNames());
  };
  EXPECT_TRUE(test::TraceDisk(
      [&] {
        world.store.RemoveOthers("2.0.0", in_use);
        Fetch(world);
      },
      record));
  EXPECT_GT(images.size(), 20U);
  for (const test::DiskImage& image : images) {
    test::RestoreDisk(world.dir.Path(), image);
    ASSERT_TRUE(world.store.Prepare());
    const auto file = world.store.Firmware("2.0.0");
    if (std::filesystem::exists(file)) {
      ASSERT_TRUE(world.Stored() == world.package) << "wrong bytes under the right name";
    } else {
      world.sent = 0;
      world.store.RemoveOthers("2.0.0", in_use);
      ASSERT_EQ(world.Download(), DownloadOutcome::kSuccess) << world.log.Text();
    }
    ASSERT_TRUE(world.Stored() == world.package);
    world.store.RemovePart("2.0.0");
    world.store.RemoveOthers("2.0.0", in_use);
    ASSERT_THAT(world.Names(), testing::ElementsAre("2.0.0.bin"));
  }
}

}  // namespace
}  // namespace varnel::service
