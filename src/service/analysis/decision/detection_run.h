#pragma once

#include <bitset>
#include <string>

#include "service/analysis/decision/analysis_workspace.h"
#include "service/analysis/decision/detect_request.h"
#include "service/analysis/network/detection.h"
#include "service/analysis/picture/image_buffer.h"

namespace varnel::service {

/// One picture on its way through an algorithm.
struct DetectionRun {
  AnalysisWorkspace& workspace;
  const DetectRequest& request;
  Model& model;
  const std::string& path;
  Image picture{};
  DetectionList list{};
  std::bitset<kMaxDetections> known{};  ///< results that the reference picture explains
  Model* verifier = nullptr;            ///< the network that verified them, when one did
  bool clear_history = false;           ///< what was counted so far does not count from here on
  VerifiedValues verified{};
};

}  // namespace varnel::service
