#pragma once

#include "service/analysis/decision/algorithm_labels.h"
#include "service/analysis/decision/printer_analysis_algorithm.h"

namespace varnel::service {

/// Why a result is not counted as something on the bed; 0 when it is.
[[nodiscard]] uint32_t BedItemFlag(const std::string& label, const Rect& box,
                                   int32_t picture_height);

/// Finds what lies on the bed. Nozzle, legend text and extrusion lines belong there and are only
/// shown; of the items, specks, what stands behind the bed and what already lay there do not count.
class BedItemAlgorithm : public PrinterAnalysisAlgorithm {
 public:
  BedItemAlgorithm() : PrinterAnalysisAlgorithm(kBedItemLabels) {}
  [[nodiscard]] const char* Name() const override { return "beditem_algorithm"; }

 protected:
  /// On the first picture: keeps it as the reference, with the items that count.
  void PostCheck(DetectionRun& run) override;
};

}  // namespace varnel::service
