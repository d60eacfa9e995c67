#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

namespace varnel::service {

/// How a detection ended.
enum AnalysisCode : int32_t {
  kAnalysisNotReady = -7,
  kAnalysisNoPath = -6,
  kAnalysisUnreadable = -5,
  kAnalysisInferenceFailed = -4,
  kAnalysisAbnormalPicture = -3,
  kAnalysisNoAlgorithm = -2,
  kAnalysisNotLoaded = -1,
  kAnalysisSuccess = 0,
};

/// The text of a code.
[[nodiscard]] const char* AnalysisMessage(int32_t code);

/// What a detection answers.
struct AnalysisResult {
  int32_t code = kAnalysisSuccess;
  /// "err_code", and on success an object for each label.
  nlohmann::json data = nlohmann::json::object();

  [[nodiscard]] const char* Message() const { return AnalysisMessage(code); }
};

}  // namespace varnel::service
