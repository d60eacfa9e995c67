#pragma once

#include "service/analysis/decision/algorithm_labels.h"
#include "service/analysis/decision/printer_analysis_algorithm.h"

namespace varnel::service {

/// Finds filament that was printed into the air. A second network verifies each find, and what lay
/// there before the print does not count.
class NoodleAlgorithm : public PrinterAnalysisAlgorithm {
 public:
  NoodleAlgorithm() : PrinterAnalysisAlgorithm(kNoodleLabels) {}
  [[nodiscard]] const char* Name() const override { return "noodle_algorithm"; }

 protected:
  void Verify(DetectionRun& run) override;
  /// On the first picture: keeps it as the reference, with the largest noodle. The history begins
  /// anew when there was one: it is no failure of this print.
  void PostCheck(DetectionRun& run) override;
  [[nodiscard]] bool ReleasesAfterFirst() const override { return true; }
};

}  // namespace varnel::service
