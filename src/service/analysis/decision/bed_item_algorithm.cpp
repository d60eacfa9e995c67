#include "service/analysis/decision/bed_item_algorithm.h"

#include "service/analysis/decision/known_objects.h"
#include "service/analysis/picture/analysis_log.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = kAnalysisTag;
constexpr const char* kItem = "item";
constexpr int32_t kSmallSide = 25;
/// Up to this share of its height the picture shows what is behind the bed...
constexpr double kTopStrip = 0.125;
/// ...on its left; on the right the bed reaches into it.
constexpr int32_t kTopStripRight = 400;

/// A thin line counts when it is long.
bool IsLargeEnough(const Rect& box) {
  const int32_t w = Width(box);
  const int32_t h = Height(box);
  if (w < kSmallSide && h < kSmallSide) {
    VLOG_INFO(kTag, "check size failed with w&h {} {} {} {}", box.left, box.top, w, h);
    return false;
  }
  const int64_t area = int64_t{1} * w * h;
  const bool fails = w < kSmallSide ? w < 5 && area < 625 : h <= 4 && area <= 624;
  if (fails)
    VLOG_INFO(kTag, "check size failed {} {} {} {}", box.left, box.top, box.right, box.bottom);
  return !fails;
}

bool IsBehindBed(const Rect& box, int32_t picture_height) {
  const double depth = double{1} * box.bottom / picture_height;
  if (depth > kTopStrip) return false;
  VLOG_INFO(kTag, "top outside object found: {} {} {} {} {}", box.left, box.top, box.right,
            box.bottom, depth);
  return box.left <= kTopStripRight;
}

void ReportStatic(const Detection& result, const KnownObject& known) {
  const Rect& box = result.box;
  const Rect& before = known.remembered.box;
  VLOG_INFO(kTag, "found static obj: {},{},{},{} {},{},{},{}", box.left, box.top, box.right,
            box.bottom, before.left, before.top, before.right, before.bottom);
}

std::vector<RememberedBox> CountedItems(const DetectionRun& run) {
  std::vector<RememberedBox> boxes;
  for (const Detection& result : Results(run.list))
    if (result.flag == 0) boxes.push_back({result.box, result.cls_id});
  return boxes;
}

}  // namespace

uint32_t BedItemFlag(const std::string& label, const Rect& box, int32_t picture_height) {
  if (label != kItem) return kDetectionNotItem;
  if (!IsLargeEnough(box)) return kDetectionIgnored;
  if (IsBehindBed(box, picture_height)) return kDetectionOutsideBed;
  return 0;
}

void BedItemAlgorithm::PostCheck(DetectionRun& run) {
  for (Detection& result : Results(run.list)) {
    if (result.flag == 0) {
      result.flag =
          BedItemFlag(run.model.LabelOf(result.cls_id), result.box, run.picture.buffer.height);
    }
  }
  if (!run.request.First()) {
    MarkKnownObjects(run, Name(), ReportStatic);
    return;
  }
  run.workspace.reference.Reset(Name());
  run.workspace.reference.Keep(Name(), run.picture.buffer, CountedItems(run));
}

}  // namespace varnel::service
