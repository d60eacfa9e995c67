#include "hal_interface/hal_register.h"
#include "hal_interface/platform_init.h"
#include "platform/copy_text.h"
#include "utils/board_places.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;

HalStatus GetBasicInfo(char* out) {
  if (out == nullptr) return HalStatus::kInvalidParameter;
  copy_text(out, hal_adapter::kHalPathSize, utils::board::kDetectionResults);
  return HalStatus::kSuccess;
}

constexpr hal_adapter::AiHalInterface kTable = {GetBasicInfo};

}  // namespace

HalStatus platform_ai_init() {
  hal_adapter::register_ai_hal(&kTable);
  return HalStatus::kSuccess;
}

}  // namespace varnel::platform
