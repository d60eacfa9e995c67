#include <gtest/gtest.h>

#include <array>
#include <string>

#include "hal_adapter/hal_registry.h"
#include "hal_interface/platform_init.h"
#include "support/log_capture.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalRegistry;

constexpr hal_adapter::HalStatus kOk = hal_adapter::HalStatus::kSuccess;

TEST(StorageSlotTest, CopiesThePathOfATypeWithinTheBuffer) {
  ASSERT_EQ(platform_storage_init(), kOk);
  const auto get_path = HalRegistry::Instance().storage.Get()->get_path;
  std::array<char, 64> out{};
  out.fill('#');
  EXPECT_EQ(get_path(1, out.data(), 5), kOk);
  EXPECT_EQ(std::string(out.data(), 6), std::string("/hom\0#", 6));
  EXPECT_EQ(get_path(0, out.data(), 0), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(get_path(0, nullptr, 64), hal_adapter::HalStatus::kInvalidParameter);
  EXPECT_EQ(get_path(4, out.data(), out.size()), hal_adapter::HalStatus::kNoMemory);
}

TEST(SystemSlotTest, RefusesWhatTheBoardHasNotAndEndsItsMonitor) {
  const test::LogCapture log;
  ASSERT_EQ(platform_system_init({}), kOk);
  const hal_adapter::SystemHalInterface& table = *HalRegistry::Instance().system.Get();
  EXPECT_EQ(table.upgrade_firmware(1, "/tmp/x"), hal_adapter::HalStatus::kNoMemory);
  EXPECT_EQ(table.collect_platform_data(7, "/tmp"), hal_adapter::HalStatus::kNoMemory);
  EXPECT_EQ(table.prepare_reboot(), kOk);
  platform_system_shutdown();
  EXPECT_EQ(log.Count("IMSYSUSBM", "Monitor task start"), 1u);
  EXPECT_EQ(log.Count("IMSYSUSBM", "Monitor task end"), 1u);
}

}  // namespace
}  // namespace varnel::platform
