#include "hal_adapter/ai_adapter.h"

#include <array>
#include <utility>

namespace varnel::hal_adapter {
namespace {

constexpr const char* kTag = "HALAI";

}  // namespace

AiAdapter::AiAdapter(AreaInit init, const HalRegistry& registry)
    : init_(std::move(init)), registry_(registry) {}

bool AiAdapter::Start() {
  table_ = StartArea(kTag, init_, registry_.ai);
  return table_ != nullptr;
}

std::string AiAdapter::DetectResultDir() const {
  if (table_ == nullptr) {
    VLOG_ERROR(kTag, "Interface is invalid");
    return {};
  }
  if (table_->get_ai_basic_info == nullptr) {
    VLOG_ERROR(kTag, "get_ai_basic_info interface has not been implemented");
    return {};
  }
  std::array<char, kHalPathSize> directory{};
  if (table_->get_ai_basic_info(directory.data()) != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Get AI basic information failed");
    return {};
  }
  return directory.data();
}

}  // namespace varnel::hal_adapter
