#include "service/analysis/decision/analysis_result.h"

namespace varnel::service {

const char* AnalysisMessage(AnalysisStatus status) {
  switch (status) {
    case AnalysisStatus::kNotReady:
      return "printer analysis module not ready";
    case AnalysisStatus::kNoPath:
      return "file path of picture is error";
    case AnalysisStatus::kUnreadable:
      return "fail to read picture file";
    case AnalysisStatus::kInferenceFailed:
      return "model inference failed";
    case AnalysisStatus::kAbnormalPicture:
      return "picture is abnormal";
    case AnalysisStatus::kNoAlgorithm:
      return "cannot find corresponding model at current phase";
    case AnalysisStatus::kNotLoaded:
      return "model load fail when detect";
    case AnalysisStatus::kSuccess:
      return "succeed";
  }
  return "unknown error";
}

}  // namespace varnel::service
