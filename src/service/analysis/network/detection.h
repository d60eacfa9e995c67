#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "service/analysis/picture/rect.h"

namespace varnel::service {

/// Marks that the algorithms put on a result; a result without any is counted.
enum DetectionFlag : uint32_t {
  kDetectionIgnored = 1,     ///< rejected by verification, by size or by the reference picture
  kDetectionOutsideBed = 2,  ///< at the top of the picture, behind the bed
  kDetectionNotItem = 0x10,  ///< kept out of the item decision
};

/// One object that a network found.
struct Detection {
  Rect box;            ///< pixels of the picture
  float prop = 0.0F;   ///< probability, 0 to 1
  int32_t cls_id = 0;  ///< index into the model's labels
  uint32_t flag = 0;   ///< DetectionFlag bits
};

inline constexpr int32_t kMaxDetections = 128;

/// The result of one inference, best first.
struct DetectionList {
  int32_t id = 0;
  int32_t count = 0;  ///< how many of `results` are filled
  std::array<Detection, kMaxDetections> results{};
};

/// The value that a verifying network gave each result of a list; nothing where none was given.
using VerifiedValues = std::array<std::optional<float>, kMaxDetections>;

/// The filled results.
[[nodiscard]] inline std::span<Detection> Results(DetectionList& list) {
  return std::span(list.results).first(static_cast<size_t>(list.count));
}
[[nodiscard]] inline std::span<const Detection> Results(const DetectionList& list) {
  return std::span(list.results).first(static_cast<size_t>(list.count));
}

}  // namespace varnel::service
