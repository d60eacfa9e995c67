#pragma once

#include <array>
#include <cstdint>

#include "service/analysis/network/box_decoder.h"

namespace varnel::service {

/// The boxes that stay after better ones have suppressed their like: from best to worst, a box
/// stays unless it overlaps one that stayed, of its class, by more than the threshold.
class BoxSuppression {
 public:
  /// The decoder must outlive this.
  BoxSuppression(float threshold, BoxDecoder& decoder) : threshold_(threshold), decoder_(decoder) {}

  /// Takes the next best candidate.
  void Offer(const Candidate& candidate);

  [[nodiscard]] bool Full() const { return count_ == kMaxDetections; }
  [[nodiscard]] size_t Count() const { return count_; }
  [[nodiscard]] const Candidate& CandidateAt(size_t index) const { return candidates_[index]; }
  [[nodiscard]] const NetworkBox& BoxAt(size_t index) const { return boxes_[index]; }

 private:
  enum class Overlap { kNone, kUnsure, kTooMuch };
  using Column = std::array<float, kMaxDetections>;

  [[nodiscard]] Overlap Test(const NetworkBox& box, int32_t cls_id) const;
  void MakeExact();
  void Put(size_t index, const NetworkBox& box);

  const float threshold_;
  BoxDecoder& decoder_;
  size_t count_ = 0;
  std::array<Candidate, kMaxDetections> candidates_{};
  std::array<NetworkBox, kMaxDetections> boxes_{};
  // The boxes once more, in columns, so that a new one is compared with several at once.
  Column left_{};
  Column top_{};
  Column right_{};
  Column bottom_{};
  Column area_{};
  Column girth_{};
  Column error_{};
  std::array<int32_t, kMaxDetections> class_{};
};

}  // namespace varnel::service
