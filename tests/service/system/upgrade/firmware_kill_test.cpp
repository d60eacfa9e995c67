// A process that is killed, or whose power is cut, at any of its changes to the disk from the look
// at a description to the hand-off: wrong bytes never count as downloaded, the next request ends
// with the right ones and nothing else, and what is known of an upgrade is whole or absent.
#include <gmock/gmock.h>

#include <set>

#include "service/system/upgrade/firmware_world.h"
#include "service/system/upgrade/upgrade_record.h"
#include "support/disk_image.h"
#include "support/disk_trace.h"
#include "utils/atomic_file.h"

namespace varnel::service {
namespace {

const FirmwareWorld::Fault kCut = [](PackageAnswer& answer) { answer.sends = 20'000; };
const FirmwareWorld::Fault kNothing = [](PackageAnswer& answer) { answer.sends = 0; };

const std::string kOld(3000, 'o');
const std::string kNew(5000, 'n');

bool IsInUse(const std::string&) {
  return false;
}

void Fetch(FirmwareWorld& world) {
  world.Spoil({kCut, kNothing, kNothing, kNothing});
  (void)world.Download();
  world.Spoil({});
  (void)world.Download();
}

void HandOff(const FirmwareStore& store) {
  UpgradeRecord record{store.Firmware("2.0.0").string(), "1.0.0", "2.0.0", ""};
  EXPECT_TRUE(record.Save(store.UpgradeRecord()));
  record.outcome = "success";
  EXPECT_TRUE(record.Save(store.UpgradeRecord()));
}

/// Read as the next start reads it.
void ExpectWhole(const FirmwareStore& store) {
  const std::filesystem::path description = store.Directory() / "remote_firmware_desc.json";
  const auto text = utils::ReadSmallFile(description, 10'000);
  EXPECT_TRUE(!text || *text == kOld || *text == kNew) << text->size();
  EXPECT_TRUE(!std::filesystem::exists(store.UpgradeRecord()) ||
              UpgradeRecord::Load(store.UpgradeRecord()));
}

TEST(FirmwareKillTest, AnInterruptionCostsTimeOnly) {
  FirmwareWorld world(50'000);
  // Of another version, which goes.
  (void)world.dir.Write(".tmp_upgrade/1.0.0.bin", "old");
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
        (void)world.store.KeepDescription(kOld);
        (void)world.store.KeepDescription(kNew);
        world.store.RemoveOthers("2.0.0", IsInUse);
        Fetch(world);
        HandOff(world.store);
      },
      record));
  EXPECT_GT(images.size(), 20U);
  for (const test::DiskImage& image : images) {
    test::RestoreDisk(world.dir.Path(), image);
    ASSERT_TRUE(world.store.Prepare());
    ExpectWhole(world.store);
    ASSERT_FALSE(world.store.KeepDescription(kNew));
    const auto file = world.store.Firmware("2.0.0");
    if (std::filesystem::exists(file)) {
      ASSERT_TRUE(world.Stored() == world.package) << "wrong bytes under the right name";
    } else {
      world.sent = 0;
      world.store.RemoveOthers("2.0.0", IsInUse);
      std::error_code none;
      const auto there = std::filesystem::file_size(world.store.Part("2.0.0"), none);
      ASSERT_EQ(world.Download(), DownloadOutcome::kSuccess) << world.log.Text();
      EXPECT_LE(world.sent + (none ? 0 : there), world.package.size() + 2 * world.kSyncBytes);
    }
    ASSERT_TRUE(world.Stored() == world.package);
    world.store.RemovePart("2.0.0");
    world.store.RemoveOthers("2.0.0", IsInUse);
    ASSERT_THAT(world.Names(),
                testing::IsSubsetOf({"2.0.0.bin", "remote_firmware_desc.json", "upgrade.json"}));
  }
}

}  // namespace
}  // namespace varnel::service
