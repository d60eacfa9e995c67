// A process that is killed, or whose power is cut, at any of its changes to the credentials: the
// next start finds all of one pair or none.
#include <gtest/gtest.h>

#include <set>

#include "service/agent/authentication_world.h"
#include "support/disk_image.h"
#include "support/disk_trace.h"

namespace varnel::service {
namespace {

TEST(CredentialsKillTest, TheNextStartFindsAMatchingPairOrNone) {
  const test::TempDir keys;
  const Identity pairs[] = {MakeIdentity(keys, "EC"), MakeIdentity(keys, "EC")};
  const CredentialSource source{"int", "https://api"};
  const test::TempDir disk;
  const auto fetch = [&](const CredentialStore& store, const Identity& pair) {
    const auto info = store.Save({"broker.example", 8883, "client-1", pair.certificate,
                                  pair.certificate, utils::SecretString(pair.key)});
    if (info) store.SaveAuthInfoToCache(*info, source);
  };
  const auto live = [&] {
    const CredentialStore store(disk / "certs");
    fetch(store, pairs[0]);
    fetch(store, pairs[1]);
    store.Remove();
    fetch(store, pairs[0]);
  };
  test::DiskRecorder recorder(disk.Path());
  std::set<test::DiskImage> images;
  EXPECT_TRUE(test::TraceDisk(live, [&](const test::DiskCall& call) {
    if (call.sync && call.made) recorder.Synced(call.thread, call.descriptor);
    images.insert(recorder.WithAllNames(true));
    images.insert(recorder.WithAllNames());
    images.insert(recorder.WithSyncedNames());
  }));
  EXPECT_GT(images.size(), 30U);
  std::set<std::string> found;
  for (const test::DiskImage& image : images) {
    test::RestoreDisk(disk.Path(), image);
    const CredentialStore store(disk / "certs");
    if (!store.LoadAuthInfoFromCache(source)) continue;
    const std::string key = test::ReadFile(disk / "certs/client.key");
    const std::string certificate = test::ReadFile(disk / "certs/client.cert");
    found.insert(key);
    EXPECT_TRUE((key == pairs[0].key && certificate == pairs[0].certificate) ||
                (key == pairs[1].key && certificate == pairs[1].certificate));
    for (const auto& entry : std::filesystem::directory_iterator(disk / "certs"))
      EXPECT_NE(entry.path().filename().string().front(), '.') << "a leftover may hold a key";
  }
  EXPECT_EQ(found.size(), 2U);
}

}  // namespace
}  // namespace varnel::service
