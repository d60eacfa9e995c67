#include <functional>

#include "hal_interface/hal_register.h"
#include "hal_interface/platform_init.h"
#include "platform/platform_data.h"
#include "platform/system_info.h"
#include "platform/upgrade.h"
#include "platform/usb_monitor.h"
#include "utils/log_printf.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;

constexpr const char* kTag = "IMSYS";
constexpr const char* kUnknownHardware = "Unknown";

/// Written at the initialisation, before anybody can call a slot.
struct System {
  SystemInfoBoard info;
  DataBoard data;
  UpgradeBoard upgrade;
  UpgradeLeftovers upgrade_leftovers;
};
System& TheSystem() {
  static System system;
  return system;
}

HalStatus GetDeviceInfo(hal_adapter::DeviceInfo* info) {
  return get_device_info(TheSystem().info, kUnknownHardware, info);
}

HalStatus Check(const void* pointer) {
  return pointer != nullptr ? HalStatus::kSuccess : HalStatus::kInvalidParameter;
}

HalStatus UpgradeFirmware(uint32_t target, const char* package) {
  return upgrade_firmware(TheSystem().upgrade, TheSystem().upgrade_leftovers, target, package);
}

HalStatus CollectPlatformData(uint32_t type, const char* out_dir) {
  return collect_platform_data(TheSystem().data, type, out_dir);
}

/// The caller reboots.
HalStatus PrepareReboot() {
  PLOG_INFO(kTag, "Preparing to reboot...");
  return HalStatus::kSuccess;
}

HalStatus Reserved() {
  return HalStatus::kSuccess;
}

constexpr hal_adapter::SystemHalInterface kTable = {
    GetDeviceInfo, Check, UpgradeFirmware, CollectPlatformData, PrepareReboot, Reserved};

/// The board lives without it.
void StartUnlessItThrows(const char* what, const std::function<void()>& start) {
  try {
    start();
  } catch (const std::exception& error) {
    PLOG_ERROR(kTag, "The watch for %s does not start: %s", what, error.what());
  }
}

}  // namespace

HalStatus platform_system_init(const SystemSettings& settings) {
  TheSystem().data.has_space = settings.has_space;
  TheSystem().data.copy_source = settings.copy_source;
  TheSystem().info.identity = {settings.identity_device, settings.identity_offset,
                               settings.identity_key_file};
  hal_adapter::register_system_hal(&kTable);
  StartUnlessItThrows("USB drives", [] { USBMonitor::Start(); });
  StartUnlessItThrows("outputs of upgrades", [] {
    System& system = TheSystem();
    system.upgrade_leftovers.Keep(UpgradeOutput::FindIn(system.upgrade.output_dir));
  });
  return HalStatus::kSuccess;
}

std::vector<std::filesystem::path> platform_places() {
  std::vector<std::filesystem::path> places = {upgrade_output_files({})};
  for (const DataType& type : *TheSystem().data.types) {
    for (const DataArchive& archive : type.archives) places.emplace_back(archive.source);
    if (!type.file.empty()) places.emplace_back(type.file);
  }
  return places;
}

void platform_system_shutdown() {
  TheSystem().upgrade_leftovers.Release();
  USBMonitor::Stop();
}

}  // namespace varnel::platform
