#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "service/analysis/analysis_result.h"
#include "service/analysis/analysis_workspace.h"
#include "service/analysis/model_config.h"
#include "service/analysis/printer_analysis_algorithm.h"
#include "utils/clock.h"

namespace varnel::service {

/// What a print analysis is built from; the defaults are the board's.
struct AnalysisSetup {
  std::filesystem::path models = "/etc/varnel/camera_service/model";
  std::filesystem::path results = "/userdata/.tmp_detect_result";
  ResultPictures::SpaceCheck has_space = {};  ///< none: there is always room
  const RknnLibrary* library = nullptr;       ///< the NPU runtime, the board's own when null
  std::string_view config = kBuiltInModelConfig;
  utils::Clock* clock = nullptr;  ///< the machine's own when null
};

/// Tells from a picture whether a print fails. It takes no lock: one caller at a time.
class PrinterAnalysis {
 public:
  /// Creates models and result directories; networks are loaded when they are needed. A
  /// configuration that is no JSON object leaves the analysis unready, a value of a wrong type in
  /// it throws nlohmann::json::type_error.
  explicit PrinterAnalysis(const AnalysisSetup& setup = {});
  /// Releases every model. It does not wait for an NPU that does not answer, which uses the runtime
  /// as long as it is busy.
  ~PrinterAnalysis();
  PrinterAnalysis(const PrinterAnalysis&) = delete;
  PrinterAnalysis& operator=(const PrinterAnalysis&) = delete;

  [[nodiscard]] bool Ready() const { return ready_; }

  /// Runs the algorithm whose labels are exactly those of the request.
  /// @param path a picture file that read_image() reads
  /// @param params "labels", "detect_status", "z_position", and for a label an object with its own
  /// "threshold"
  [[nodiscard]] AnalysisResult DetectPicture(const std::string& path, const nlohmann::json& params);

  /// The boxes behind the latest answer.
  [[nodiscard]] const LatestDetection& Latest() const { return workspace_.latest; }
  [[nodiscard]] const ModelRegistry& Models() const { return workspace_.models; }

 private:
  void Initialise(const nlohmann::json& config);
  PrinterAnalysisAlgorithm* FindAlgorithm(const nlohmann::json& labels) const;
  int Detect(const std::string& path, const DetectRequest& request, nlohmann::json& output);

  bool ready_ = false;
  AnalysisWorkspace workspace_;
  /// In the order in which they are asked.
  const std::array<std::unique_ptr<PrinterAnalysisAlgorithm>, 3> algorithms_;
};

}  // namespace varnel::service
