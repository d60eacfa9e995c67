#include "service/analysis/decision/noodle_algorithm.h"

#include "service/analysis/decision/known_objects.h"
#include "service/analysis/decision/noodle_verification.h"
#include "service/analysis/picture/analysis_log.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = kAnalysisTag;

const Detection* LargestNoodle(const DetectionRun& run) {
  const Detection* largest = nullptr;
  for (const Detection& result : Results(run.list)) {
    if (result.flag != 0 || run.model.LabelOf(result.cls_id) != kNoodleLabels.front()) continue;
    if (largest == nullptr || Area(result.box) > Area(largest->box)) largest = &result;
  }
  return largest;
}

void ReportKnownNoodle(const Detection& result, const KnownObject& known) {
  const Rect& box = result.box;
  VLOG_INFO(kTag, "found pre print object at box: {} {} {} {} with diff_ratio: {} {}", box.left,
            box.top, box.right, box.bottom, known.diff_ratio, known.threshold);
}

}  // namespace

void NoodleAlgorithm::Verify(DetectionRun& run) {
  VerifyResults(run, kNoodleVerifyLabel);
}

void NoodleAlgorithm::PostCheck(DetectionRun& run) {
  if (!run.request.First()) {
    MarkKnownObjects(run, Name(), ReportKnownNoodle);
    return;
  }
  std::vector<RememberedBox> boxes;
  if (const Detection* noodle = LargestNoodle(run)) {
    const Rect& box = noodle->box;
    VLOG_INFO(kTag, "found larger pre print noodle at box: {} {} {} {}", box.left, box.top,
              box.right, box.bottom);
    boxes.push_back({box, noodle->cls_id});
    run.clear_history = true;
  }
  run.workspace.reference.Keep(Name(), run.picture.buffer, std::move(boxes));
}

}  // namespace varnel::service
