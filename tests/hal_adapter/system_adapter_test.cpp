#include "hal_adapter/system_adapter.h"

#include <gmock/gmock.h>
#include <array>
#include <cstring>

#include "hal_adapter/device_uuid.h"
#include "hal_adapter/fake_tables.h"
#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace varnel::hal_adapter {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::HasSubstr;

template <size_t Size>
void SetText(char (&field)[Size], const char* text) {
  std::strncpy(field, text, Size - 1);
}

class SystemAdapterTest : public testing::Test {
 protected:
  SystemAdapterTest() {
    test::Fake() = {};
    DeviceInfo& device = test::Fake().device;
    SetText(device.serial_number, "SN01");
    SetText(device.device_key, "the-secret-key");
    SetText(device.mac, "AA:BB:CC:DD:EE:FF");
    SetText(device.firmware_version, "1.2.3");
    SetText(device.processor_serial, "0badcafe");
    registry_.system.Register(&table_);
  }
  ~SystemAdapterTest() override { test::Fake() = {}; }

  SystemAdapter Adapter(IdentityFiles files) {
    return SystemAdapter([] { return HalStatus::kSuccess; }, std::move(files), registry_,
                         [] { return 5489u; }, clock_);
  }
  SystemAdapter Adapter() {
    return Adapter({dir_ / "serial", dir_ / "product", dir_ / "version", dir_ / "full"});
  }

  test::LogCapture log_;
  test::TempDir dir_;
  test::FakeClock clock_{test::FakeClock::Waiting::kManual};
  SystemHalInterface table_ = test::FakeSystem();
  HalRegistry registry_;
};

TEST_F(SystemAdapterTest, AFileThatCannotBeWrittenIsNamedAndTheOthersAreReadable) {
  fs::create_directories(dir_ / "directory/in-the-way");
  fs::create_symlink(dir_.Write("victim", "untouched"), dir_ / "version");
  SystemAdapter adapter = Adapter(
      {dir_ / "missing/serial", dir_ / "directory", dir_ / "version", "/proc/self/mem/full"});
  EXPECT_TRUE(adapter.Start());
  EXPECT_TRUE(log_.Has("HALSYS", "Open file '" + (dir_ / "missing/serial").string() + "' failed."));
  EXPECT_THAT(log_.Text(), HasSubstr("Filesystem error: "));
  EXPECT_EQ(test::ReadFile(dir_ / "version"), "1.2.3\n");
  EXPECT_EQ(fs::status(dir_ / "version").permissions(), fs::perms(0644));
  EXPECT_EQ(test::ReadFile(dir_ / "victim"), "untouched") << "a planted link is not followed";
}

TEST_F(SystemAdapterTest, AnyPartOfTheIdentityMakesTheUuidNameBased) {
  const std::array<const char*, 3> cases[] = {
      {"SN", "MAC", "CPU"}, {"--", "UnknownMAC", ""}, {"", "UnknownMAC", ""}, {"", "", "CPU"}};
  DeviceInfo& device = test::Fake().device;
  for (const auto& [serial, mac, processor] : cases) {
    SetText(device.serial_number, serial);
    SetText(device.mac, mac);
    SetText(device.processor_serial, processor);
    SystemAdapter adapter = Adapter();
    ASSERT_TRUE(adapter.Start());
    EXPECT_EQ(adapter.Uuid(), NameUuid(std::string(serial) + mac + processor));
  }
  device = {};
  for (const HalStatus status : {HalStatus::kSuccess, HalStatus::kHardwareError}) {
    test::Fake().status = status;
    SystemAdapter adapter = Adapter();
    EXPECT_EQ(adapter.Start(), status == HalStatus::kSuccess);
    EXPECT_EQ(adapter.Uuid(), RandomUuid(5489)) << "nothing to name it by";
  }
}

TEST_F(SystemAdapterTest, AnInterfaceThatComesLaterIsFoundWhenSomebodyAsks) {
  DeviceInfo& device = test::Fake().device;
  SetText(device.mac, "UnknownMAC");
  SystemAdapter adapter = Adapter();
  ASSERT_TRUE(adapter.Start());
  EXPECT_EQ(adapter.Uuid(), NameUuid("SN01UnknownMAC0badcafe"));
  clock_.Advance(1s);
  EXPECT_EQ(adapter.Identity()->mac, "UnknownMAC");
  SetText(device.mac, "AA:BB:CC:DD:EE:FF");
  clock_.Advance(1s);
  EXPECT_EQ(adapter.Identity()->mac, "UnknownMAC") << "the pauses double";
  SetText(device.serial_number, "--");  // its storage fails meanwhile
  clock_.Advance(1s);
  EXPECT_EQ(adapter.Identity()->mac, "AA:BB:CC:DD:EE:FF");
  EXPECT_EQ(adapter.Identity()->device_key.Text(), "the-secret-key");
  clock_.Advance(1h);
  SetText(device.mac, "11:22:33:44:55:66");
  EXPECT_EQ(adapter.Uuid(), NameUuid("SN01AA:BB:CC:DD:EE:FF0badcafe")) << "read once";
}

TEST(DeviceUuidTest, IsTheFirst16BytesOfSha1WithVersionAndVariant) {
  // SHA-1("abc") = a9993e36 4706 816a ba3e 25717850 c26c9cd0 d89d
  EXPECT_EQ(NameUuid("abc"), "a9993e36-4706-516a-ba3e-25717850c26c");
  const std::string random = RandomUuid(1);
  EXPECT_THAT(random, testing::MatchesRegex(
                          "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"));
  EXPECT_NE(random, RandomUuid(2));
}

TEST_F(SystemAdapterTest, ForwardsUpgradeCollectionAndRebootToSlotsThatAreThere) {
  SystemAdapter adapter = Adapter();
  ASSERT_TRUE(adapter.Start());
  test::Fake().status = HalStatus::kNoMemory;
  EXPECT_EQ(adapter.UpgradeFirmware(1, "/tmp/x.swu"), HalStatus::kNoMemory);
  EXPECT_EQ(adapter.CollectPlatformData(9, "/tmp/out"), HalStatus::kNoMemory);
  EXPECT_EQ(adapter.PrepareReboot(), HalStatus::kNoMemory);
  EXPECT_THAT(test::Fake().calls,
              testing::ElementsAre("upgrade 1 /tmp/x.swu", "collect 9 /tmp/out", "prepare reboot"));
  table_ = {};
  EXPECT_FALSE(adapter.Start());
  EXPECT_EQ(adapter.UpgradeFirmware(0, ""), HalStatus::kUnsupported);
  EXPECT_EQ(adapter.CollectPlatformData(0, ""), HalStatus::kUnsupported);
  EXPECT_EQ(adapter.PrepareReboot(), HalStatus::kUnsupported);
}

}  // namespace
}  // namespace varnel::hal_adapter
