#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/analysis/decision/analysis_result.h"
#include "service/analysis/decision/detect_request.h"
#include "service/analysis/decision/detection_run.h"
#include "service/analysis/decision/detection_statistics.h"

namespace varnel::service {

/// The common course of a detection: choose and load the network, read and judge the picture, find
/// objects, verify them, compare them with the reference picture, count, save pictures. Derived
/// classes fill in the steps that differ. Used by one thread at a time.
class PrinterAnalysisAlgorithm {
 public:
  explicit PrinterAnalysisAlgorithm(std::vector<std::string> labels);
  virtual ~PrinterAnalysisAlgorithm() = default;
  PrinterAnalysisAlgorithm(const PrinterAnalysisAlgorithm&) = delete;
  PrinterAnalysisAlgorithm& operator=(const PrinterAnalysisAlgorithm&) = delete;

  /// @param output gets the statistics of each label that was found since the print began
  virtual AnalysisStatus Detect(AnalysisWorkspace& workspace, const std::string& path,
                                const DetectRequest& request, nlohmann::json& output);
  /// What an earlier print left must not speak for this one, even if its first picture cannot be
  /// used.
  void BeginPrint(AnalysisWorkspace& workspace);
  [[nodiscard]] virtual const char* Name() const { return "unknow algorithm"; }

  [[nodiscard]] const std::vector<std::string>& Labels() const { return labels_; }

 protected:
  /// Called when something was found; may flag results.
  virtual void Verify(DetectionRun&) {}
  /// The step with the reference picture; may flag results.
  virtual void PostCheck(DetectionRun&) {}
  /// Whether the network leaves the NPU after the first picture of a print, too.
  [[nodiscard]] virtual bool ReleasesAfterFirst() const { return false; }

 private:
  AnalysisStatus RunModel(DetectionRun& run, nlohmann::json& output);
  AnalysisStatus Examine(DetectionRun& run, nlohmann::json& output);
  void WriteStatistics(const ImageBuffer& picture, nlohmann::json& output) const;
  void SavePictures(DetectionRun& run) const;
  void Finish(DetectionRun& run);
  void ReleaseAfter(DetectionRun& run) const;

  const std::vector<std::string> labels_;
  DetectionHistory history_;
};

}  // namespace varnel::service
