#include "service/analysis/decision/reference_picture.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/picture_compare.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = kAnalysisTag;
constexpr double kThreshold = 0.45;
constexpr double kThresholdWithoutBox = 0.2;
constexpr double kHeightShareWithoutBox = 0.7;
/// Above it two boxes have nothing in common; the comparison has no business with them.
constexpr double kUnrelated = 1.45;
constexpr int32_t kMaxTopDistance = 30;
constexpr int32_t kMinSide = 2;
constexpr double kMaxGrowth = 4.0;
constexpr double kMinOverlap = 0.8;

bool IsLargeEnough(const Rect& box) {
  return Width(box) >= kMinSide && Height(box) >= kMinSide;
}

/// The rule for overlaps counts the far edges in.
BasicRect<double> Inclusive(const Rect& box) {
  return {double{0} + box.left, double{0} + box.top, double{1} + box.right, double{1} + box.bottom};
}

bool IsSamePlace(const Rect& box, const Rect& remembered) {
  const BasicRect<double> own = Inclusive(box);
  const BasicRect<double> before = Inclusive(remembered);
  return std::abs(box.top - remembered.top) <= kMaxTopDistance && IsLargeEnough(box) &&
         IsLargeEnough(remembered) && Area(box) < kMaxGrowth * Area(remembered) &&
         Area(Intersection(own, before)) >= kMinOverlap * std::min(Area(own), Area(before));
}

}  // namespace

void ReferencePicture::Forget() {
  owner_.clear();
  picture_ = Image();
  boxes_.clear();
}

void ReferencePicture::Reset(const std::string& why) {
  VLOG_INFO(kTag, "ClearPrePrintImage reset {}", why);
  Forget();
}

void ReferencePicture::Keep(const std::string& owner, const ImageBuffer& picture,
                            std::vector<RememberedBox> boxes) {
  owner_ = owner;
  boxes_ = std::move(boxes);
  Update(picture);
}

void ReferencePicture::Update(const ImageBuffer& picture) {
  VLOG_INFO(kTag, "UpdatePrePrintImage");
  picture_.pixels.assign(picture.virt_addr, picture.virt_addr + picture.size);
  picture_.buffer = picture;
  picture_.buffer.virt_addr = picture_.pixels.data();
  picture_.buffer.fd = -1;
}

std::optional<KnownObject> ReferencePicture::FindKnown(const Detection& result,
                                                       const ImageBuffer& picture) const {
  const Rect& box = result.box;
  if (boxes_.empty()) {
    if (box.bottom > kHeightShareWithoutBox * picture_.buffer.height || !IsLargeEnough(box))
      return std::nullopt;
    return Compare(result, picture, {}, kThresholdWithoutBox);
  }
  if (box.bottom > picture_.buffer.height) return std::nullopt;
  // What is compared does not depend on which of several boxes it matches.
  const auto remembered = std::find_if(boxes_.begin(), boxes_.end(), [&](const auto& one) {
    return one.cls_id == result.cls_id && IsSamePlace(box, one.box);
  });
  if (remembered == boxes_.end()) return std::nullopt;
  return Compare(result, picture, *remembered, kThreshold);
}

std::optional<KnownObject> ReferencePicture::Compare(const Detection& result,
                                                     const ImageBuffer& picture,
                                                     const RememberedBox& remembered,
                                                     double threshold) const {
  const double diff_ratio = PictureDiffRatio(picture_.buffer, picture, result.box);
  if (diff_ratio < 0) {
    VLOG_ERROR(kTag, "picture box match has error! {}", diff_ratio);
    return std::nullopt;
  }
  if (diff_ratio > threshold || diff_ratio >= kUnrelated) return std::nullopt;
  return KnownObject{remembered, diff_ratio, threshold};
}

}  // namespace varnel::service
