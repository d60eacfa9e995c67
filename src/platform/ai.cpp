#include "hal_interface/hal_register.h"
#include "hal_interface/platform_init.h"
#include "platform/copy_text.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;

constexpr const char* kDetectResultDir = "/userdata/.tmp_detect_result";

HalStatus GetBasicInfo(char* out) {
  if (out == nullptr) return HalStatus::kInvalidParameter;
  copy_text(out, hal_adapter::kHalPathSize, kDetectResultDir);
  return HalStatus::kSuccess;
}

constexpr hal_adapter::AiHalInterface kTable = {GetBasicInfo};

}  // namespace

HalStatus platform_ai_init() {
  hal_adapter::register_ai_hal(&kTable);
  return HalStatus::kSuccess;
}

}  // namespace varnel::platform
