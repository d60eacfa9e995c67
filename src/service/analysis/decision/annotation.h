#pragma once

#include <string>

#include "service/analysis/decision/detection_run.h"

namespace varnel::service {

/// "noodle 93.1%", with " (*)" behind it for what the reference picture explains and " (ignored)"
/// for what was rejected otherwise.
[[nodiscard]] std::string ResultCaption(const std::string& label, const Detection& result,
                                        bool known);

/// Draws boxes and captions of a run onto its picture and logs each result.
void AnnotatePicture(DetectionRun& run);

}  // namespace varnel::service
