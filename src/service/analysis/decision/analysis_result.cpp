#include "service/analysis/decision/analysis_result.h"

#include <array>
#include <cstddef>

namespace varnel::service {
namespace {

/// From kAnalysisNotReady upwards.
constexpr std::array kMessages{
    "printer analysis module not ready",
    "file path of picture is error",
    "fail to read picture file",
    "model inference failed",
    "picture is abnormal",
    "cannot find corresponding model at current phase",
    "model load fail when detect",
    "succeed",
};

}  // namespace

const char* AnalysisMessage(int32_t code) {
  const int64_t index = int64_t{code} - kAnalysisNotReady;
  if (index < 0 || index >= static_cast<int64_t>(kMessages.size())) return "unknown error";
  return kMessages[static_cast<size_t>(index)];
}

}  // namespace varnel::service
