#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "replay/command_line.h"
#include "replay/judgement.h"
#include "replay/scratch_directory.h"
#include "service/analysis/decision/printer_analysis.h"

namespace varnel::service {
class RknnLibrary;
}  // namespace varnel::service

namespace varnel::replay {

/// The daemon's print analysis over the pictures of a folder, one at a time.
class PictureJudge {
 public:
  /// @param annotated an existing directory: annotated pictures go there under their own names
  /// @param library outlives this
  PictureJudge(const Options& options, const std::filesystem::path& annotated,
               const service::RknnLibrary& library);
  PictureJudge(const PictureJudge&) = delete;
  PictureJudge& operator=(const PictureJudge&) = delete;

  /// Why no picture could be judged; empty when the networks can be used.
  [[nodiscard]] std::string Problem() const;
  [[nodiscard]] const std::vector<std::string>& Classes() const {
    return options_.algorithm->labels;
  }
  /// Where the networks are.
  [[nodiscard]] const std::filesystem::path& Models() const { return models_; }
  // Below: only without a problem.
  /// The threshold of each class in use.
  [[nodiscard]] std::map<std::string, float> Thresholds() const;

  /// From which value of the verifying network on a find of each class passes; empty without one.
  [[nodiscard]] std::map<std::string, float> VerifyThresholds() const;
  /// The files of the networks in use, first the one that detects.
  [[nodiscard]] std::vector<std::string> Networks() const;

  [[nodiscard]] Judgement Judge(const Turn& turn);

 private:
  [[nodiscard]] std::string ProblemWith(const std::vector<std::string>& labels) const;
  [[nodiscard]] nlohmann::json Request(const std::string& status) const;
  [[nodiscard]] std::filesystem::path PathOf(const std::string& picture) const;
  void Fill(const service::AnalysisResult& result, Judgement& judgement);
  [[nodiscard]] bool KeepAnnotated(const std::string& picture) const;

  const Options& options_;
  const std::filesystem::path annotated_;
  const ScratchDirectory results_;
  const service::RknnLibrary& library_;
  service::DetectionList candidates_;
  const service::CandidateObserver observer_;
  const std::filesystem::path models_;
  const std::unique_ptr<service::PrinterAnalysis> analysis_;
};

}  // namespace varnel::replay
