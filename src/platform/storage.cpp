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
  if (out == nullptr || size == 0) return hal_adapter::kHalInvalidParameter;
  if (type >= kPaths.size()) {
    PLOG_ERROR(kTag, "Unsupported type");
    return hal_adapter::kHalNoMemory;
  }
  copy_text(out, size, kPaths[type]);
  return hal_adapter::kHalSuccess;
}

constexpr hal_adapter::StorageHalInterface kTable = {GetPath};

}  // namespace

HalStatus platform_storage_init() {
  hal_adapter::register_storage_hal(&kTable);
  return hal_adapter::kHalSuccess;
}

}  // namespace varnel::platform
