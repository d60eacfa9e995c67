#include <array>

#include "hal_interface/hal_register.h"
#include "hal_interface/platform_init.h"
#include "platform/copy_text.h"
#include "utils/log_printf.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;

constexpr const char* kTag = "IMSTO";

/// By StoragePathType.
constexpr std::array<const char*, 4> kPaths = {"/etc", "/home/ruxo/printer_data", "/userdata",
                                               "/tmp"};

HalStatus GetPath(uint32_t type, char* out, size_t size) {
  if (out == nullptr || size == 0) return HalStatus::kInvalidParameter;
  if (type >= kPaths.size()) {
    PLOG_ERROR(kTag, "Unsupported type");
    return HalStatus::kNoMemory;
  }
  copy_text(out, size, kPaths[type]);
  return HalStatus::kSuccess;
}

constexpr hal_adapter::StorageHalInterface kTable = {GetPath};

}  // namespace

HalStatus platform_storage_init() {
  hal_adapter::register_storage_hal(&kTable);
  return HalStatus::kSuccess;
}

}  // namespace varnel::platform
