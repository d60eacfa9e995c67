#pragma once

#include "service/analysis/decision/algorithm_labels.h"
#include "service/analysis/decision/printer_analysis_algorithm.h"

namespace varnel::service {

/// Finds filament that is wrapped round the nozzle. No network of the product serves its label yet:
/// a request ends with AnalysisStatus::kNotLoaded.
class WrapHeadAlgorithm : public PrinterAnalysisAlgorithm {
 public:
  WrapHeadAlgorithm() : PrinterAnalysisAlgorithm(kWrapHeadLabels) {}
  [[nodiscard]] const char* Name() const override { return "wraphead_algorithm"; }
};

}  // namespace varnel::service
