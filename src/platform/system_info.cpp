#include "platform/system_info.h"

#include "platform/copy_text.h"

namespace varnel::platform {
namespace {

constexpr const char* kUnreadable = "--";
constexpr const char* kUnknownHardware = "Unknown";
constexpr const char* kUnknownMac = "UnknownMAC";

}  // namespace

hal_adapter::HalStatus get_device_info(hal_adapter::DeviceInfo* info) {
  if (info == nullptr) return hal_adapter::kHalInvalidParameter;
  *info = {};
  copy_text(info->serial_number, kUnreadable);
  copy_text(info->product_code, kUnreadable);
  copy_text(info->device_key, kUnreadable);
  copy_text(info->hardware_version, kUnknownHardware);
  copy_text(info->mac, kUnknownMac);
  return hal_adapter::kHalSuccess;
}

}  // namespace varnel::platform
