#pragma once

#include "service/analysis/decision/detection_run.h"

namespace varnel::service {

/// Marks every result that was there before the print; when there is one, the current picture
/// becomes the reference. Nothing happens unless `owner` keeps a reference.
/// @param report logs a hit
void MarkKnownObjects(DetectionRun& run, const char* owner,
                      void (*report)(const Detection&, const KnownObject&));

}  // namespace varnel::service
