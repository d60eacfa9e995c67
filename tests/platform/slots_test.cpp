#include <gtest/gtest.h>

#include <array>
#include <string>

#include "hal_adapter/hal_registry.h"
#include "hal_interface/platform_init.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "virtual_board/identity/block.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalRegistry;

TEST(StorageSlotTest, CopiesThePathOfATypeWithinTheBuffer) {
  const test::LogCapture log;
  ASSERT_EQ(platform_storage_init(), hal_adapter::HalStatus::kSuccess);
  const auto get_path = HalRegistry::Instance().storage.Get()->get_path;
  std::array<char, 64> out{};
  out.fill('#');
  EXPECT_EQ(get_path(1, out.data(), 5), hal_adapter::HalStatus::kSuccess);
  EXPECT_EQ(std::string(out.data(), 6), std::string("/hom\0#", 6));
  EXPECT_EQ(get_path(0, out.data(), 0), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(get_path(0, nullptr, 64), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(get_path(4, out.data(), out.size()), hal_adapter::HalStatus::kNoMemory);
  EXPECT_TRUE(log.Has("IMSTO", "Unsupported type"));
}

TEST(SystemSlotTest, AnswersWithTheIdentityOfTheDeployment) {
  const test::LogCapture log;
  const test::TempDir dir;
  const std::string key(32, 'k');
  const std::string identity = R"({"SerialNumber":"S1","ProductCode":"P1","PrivateKey":"K1"})";
  board::WriteIdentityBlock(dir / "id", 7, board::SealedIdentityBlock(identity, key));
  ASSERT_EQ(platform_system_init({dir / "id", 7, dir.Write("key", key)}),
            hal_adapter::HalStatus::kSuccess);
  const hal_adapter::SystemHalInterface& table = *HalRegistry::Instance().system.Get();
  hal_adapter::DeviceInfo info{};
  EXPECT_EQ(table.get_device_info(&info), hal_adapter::HalStatus::kSuccess);
  EXPECT_STREQ(info.serial_number, "S1");
  EXPECT_EQ(table.upgrade_firmware(1, "/tmp/x"), hal_adapter::HalStatus::kNoMemory);
  EXPECT_TRUE(log.Has("IMSYS", "Do not support upgrading the target 1"));
  EXPECT_EQ(table.collect_platform_data(7, "/tmp"), hal_adapter::HalStatus::kNoMemory);
  EXPECT_TRUE(log.Has("IMSYS", "Unsupported platform data type 7"));
  EXPECT_EQ(table.prepare_reboot(), hal_adapter::HalStatus::kSuccess);
  EXPECT_TRUE(log.Has("IMSYS", "Preparing to reboot..."));
  platform_system_shutdown();
  EXPECT_EQ(log.Count("IMSYSUSBM", "Monitor task start"), 1u);
  EXPECT_EQ(log.Count("IMSYSUSBM", "Monitor task end"), 1u);
}

}  // namespace
}  // namespace varnel::platform
