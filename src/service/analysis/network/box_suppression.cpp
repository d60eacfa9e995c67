#include "service/analysis/network/box_suppression.h"

#include <cmath>

namespace varnel::service {

namespace {

// By value: the standard ones deal in references, which keep a loop from being vectorised.
float Least(float a, float b) {
  return b < a ? b : a;
}

float Most(float a, float b) {
  return a < b ? b : a;
}

float Area(const NetworkBox& box) {
  return (box.width + 1.0F) * (box.height + 1.0F);
}

float Girth(const NetworkBox& box) {
  return box.width + box.height + 2.0F;
}

}  // namespace

void BoxSuppression::Offer(const Candidate& candidate) {
  auto box = decoder_.Decode(candidate);
  if (!box) return;
  Overlap overlap = Test(*box, candidate.cls_id);
  if (overlap == Overlap::kUnsure) {
    MakeExact();
    box = decoder_.DecodeExactly(candidate);
    overlap = Test(*box, candidate.cls_id);
  }
  if (overlap == Overlap::kTooMuch) return;
  candidates_[count_] = candidate;
  class_[count_] = candidate.cls_id;
  Put(count_, *box);
  ++count_;
}

/// With edges moved by e each, the area of an overlap changes by e, and the united area by three e,
/// times the girths of both boxes at most. Exact boxes leave no doubt.
BoxSuppression::Overlap BoxSuppression::Test(const NetworkBox& box, int32_t cls_id) const {
  const float right = box.x + box.width;
  const float bottom = box.y + box.height;
  const float area = Area(box);
  const float girth = Girth(box);
  const float weight = 1.0F + 3.0F * std::abs(threshold_);
  int32_t too_much = 0;
  int32_t unsure = 0;
  for (size_t i = 0; i < count_; ++i) {
    const float width = Most(0.0F, Least(right, right_[i]) - Most(box.x, left_[i]) + 1.0F);
    const float height = Most(0.0F, Least(bottom, bottom_[i]) - Most(box.y, top_[i]) + 1.0F);
    const float overlap = width * height;
    const float united = area_[i] + area - overlap;
    const float ratio = overlap / united;
    const float iou = united <= 0.0F ? 0.0F : ratio;
    const float doubt = weight * (box.error + error_[i]) * (girth + girth_[i]);
    const int32_t same_class = class_[i] == cls_id ? 1 : 0;
    const int32_t doubtful = std::abs(overlap - threshold_ * united) < doubt ? same_class : 0;
    const int32_t over = iou > threshold_ ? same_class : 0;
    too_much |= over & ~doubtful;
    unsure |= doubtful;
  }
  if (too_much != 0) return Overlap::kTooMuch;
  return unsure != 0 ? Overlap::kUnsure : Overlap::kNone;
}

void BoxSuppression::MakeExact() {
  for (size_t i = 0; i < count_; ++i) {
    if (boxes_[i].error > 0) Put(i, *decoder_.DecodeExactly(candidates_[i]));
  }
}

void BoxSuppression::Put(size_t index, const NetworkBox& box) {
  boxes_[index] = box;
  left_[index] = box.x;
  top_[index] = box.y;
  right_[index] = box.x + box.width;
  bottom_[index] = box.y + box.height;
  area_[index] = Area(box);
  girth_[index] = Girth(box);
  error_[index] = box.error;
}

}  // namespace varnel::service
