#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>

#include "service/analysis/decision/analysis_result.h"
#include "service/analysis/decision/analysis_workspace.h"
#include "service/analysis/decision/printer_analysis_algorithm.h"
#include "service/analysis/network/model_config.h"
#include "utils/board_places.h"
#include "utils/clock.h"

namespace varnel::service {

/// What a print analysis is built from; the defaults are the board's.
struct AnalysisSetup {
  std::filesystem::path models = "/etc/varnel/camera_service/model";
  std::filesystem::path results = utils::board::kDetectionResults;
  // The next two and the clock are used as long as the NPU is busy, even beyond the analysis' end.
  utils::SpaceCheck has_space = {};
  const RknnLibrary* library = nullptr;  ///< the NPU runtime, the board's own when null
  std::string_view config = kBuiltInModelConfig;
  utils::Clock* clock = nullptr;  ///< the machine's own when null
};

/// Tells from a picture whether a print fails. One caller at a time. A whole detection is a job of
/// the NPU's thread: its pixels stay with one processor core, and a runtime that never returns
/// holds no caller.
class PrinterAnalysis {
 public:
  /// Creates models and result directories; networks are loaded when they are needed. A
  /// configuration that is no JSON object leaves the analysis unready, a value of a wrong type in
  /// it throws nlohmann::json::type_error.
  explicit PrinterAnalysis(const AnalysisSetup& setup = {});
  /// Releases every model; of an NPU that does not answer when it does.
  ~PrinterAnalysis();
  PrinterAnalysis(const PrinterAnalysis&) = delete;
  PrinterAnalysis& operator=(const PrinterAnalysis&) = delete;

  [[nodiscard]] bool Ready() const { return state_->ready; }

  /// Runs the algorithm whose labels are exactly those of the request.
  /// @param path a picture file that read_image() reads
  /// @param params "labels", "detect_status", "z_position", and for a label an object with its own
  /// "threshold"
  /// @return AnalysisStatus::kInferenceFailed when it takes longer than NpuThread::kPatience, and
  /// at once as long as it does
  [[nodiscard]] AnalysisResult DetectPicture(const std::string& path, const nlohmann::json& params);

  // Not as long as the NPU does not answer.
  /// The boxes behind the latest picture that was looked at.
  [[nodiscard]] const LatestDetection& Latest() const { return state_->workspace.latest; }
  [[nodiscard]] const ModelRegistry& Models() const { return state_->workspace.models; }

 private:
  /// All that a detection works with. It belongs to the detection in work, too.
  struct State {
    explicit State(const AnalysisSetup& setup);

    AnalysisWorkspace workspace;
    /// In the order in which they are asked.
    const std::array<std::unique_ptr<PrinterAnalysisAlgorithm>, 3> algorithms;
    bool ready = false;
  };
  struct Job;

  PrinterAnalysisAlgorithm* FindAlgorithm(const std::vector<std::string>& labels) const;
  AnalysisStatus Detect(const std::string& path, const DetectRequest& request,
                        nlohmann::json& output);
  AnalysisStatus Detect(const std::shared_ptr<Job>& job, nlohmann::json& output);

  const std::shared_ptr<State> state_;
  /// Whose print began while the NPU did not answer.
  std::set<PrinterAnalysisAlgorithm*> begun_;
};

}  // namespace varnel::service
