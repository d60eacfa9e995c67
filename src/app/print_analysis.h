#pragma once

#include <string>

#include "service/analysis/decision/printer_analysis.h"
#include "service/camera/print_analyser.h"

namespace varnel::app {

/// The print analysis as the camera service sees it.
class PrintAnalysis : public service::PrintAnalyser {
 public:
  /// @param results where its pictures go; empty: the default
  PrintAnalysis(const std::string& results, utils::SpaceCheck has_space);

  [[nodiscard]] bool Ready() const override { return analysis_.Ready(); }
  [[nodiscard]] Answer Detect(const std::string& picture, const nlohmann::json& params) override;

 private:
  service::PrinterAnalysis analysis_;
};

}  // namespace varnel::app
