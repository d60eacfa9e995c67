#pragma once

#include <bitset>
#include <string>
#include <vector>

#include "service/analysis/decision/reference_picture.h"
#include "service/analysis/decision/result_pictures.h"
#include "service/analysis/network/detection.h"
#include "service/analysis/network/model_registry.h"

namespace varnel::service {

/// What the latest picture showed.
struct LatestDetection {
  std::string algorithm;
  std::string status;
  std::vector<std::string> labels;  ///< by class id
  DetectionList found;              ///< with the algorithm's flags
  /// Results that the reference picture explains.
  std::bitset<kMaxDetections> known = {};
  VerifiedValues verified = {};
};

/// What the algorithms of one analysis share. Used by one thread at a time.
struct AnalysisWorkspace {
  NpuThread npu;  ///< of the models
  ModelRegistry models;
  ReferencePicture reference;
  ResultPictures pictures;
  LatestDetection latest;
};

}  // namespace varnel::service
