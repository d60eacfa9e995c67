#pragma once

#include <string>

#include "service/analysis/decision/detection_run.h"

namespace varnel::service {

/// Shows every result of a run to the classifying network that has this label; those that it
/// rejects are flagged as ignored. Without the network, or where it fails, results stay as they
/// are: a failing verification must not hide a finding.
void VerifyResults(DetectionRun& run, const std::string& label);

}  // namespace varnel::service
