#include "service/analysis/decision/annotation.h"

#include <fmt/format.h>

#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/image_draw.h"
#include "utils/log.h"

namespace varnel::service {

std::string ResultCaption(const std::string& label, const Detection& result, bool known) {
  const char* note = known ? " (*)" : (result.flag & kDetectionIgnored) != 0 ? " (ignored)" : "";
  return fmt::format("{} {:.1f}%{}", label, static_cast<double>(result.prop) * 100, note);
}

void AnnotatePicture(DetectionRun& run) {
  for (size_t i = 0; i < static_cast<size_t>(run.list.count); ++i) {
    const Detection& result = run.list.results[i];
    const Rect& box = result.box;
    const std::string& label = run.model.LabelOf(result.cls_id);
    VLOG_INFO(kAnalysisTag, "{} @ ({} {} {} {}) flag: {} {:.3f}", label, box.left, box.top,
              box.right, box.bottom, result.flag, result.prop);
    draw_image_c3(run.picture.buffer, box, ResultCaption(label, result, run.known.test(i)),
                  ClassColour(result.cls_id));
  }
}

}  // namespace varnel::service
