#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

namespace varnel::service {

/// How a detection ended.
enum class [[nodiscard]] AnalysisStatus : int32_t{
    kNotReady = -7,        kNoPath = -6,      kUnreadable = -5, kInferenceFailed = -4,
    kAbnormalPicture = -3, kNoAlgorithm = -2, kNotLoaded = -1,  kSuccess = 0,
};

/// The text of a status.
[[nodiscard]] const char* AnalysisMessage(AnalysisStatus status);

/// What a detection answers.
struct AnalysisResult {
  AnalysisStatus status = AnalysisStatus::kSuccess;
  /// "err_code", and on success an object for each label.
  nlohmann::json data = nlohmann::json::object();

  /// As clients see it.
  [[nodiscard]] int32_t Code() const { return static_cast<int32_t>(status); }
  [[nodiscard]] const char* Message() const { return AnalysisMessage(status); }
};

}  // namespace varnel::service
