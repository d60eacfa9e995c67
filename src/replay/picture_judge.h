#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "replay/command_line.h"
#include "replay/judgement.h"
#include "replay/scratch_directory.h"
#include "service/analysis/printer_analysis.h"

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
  /// Where the networks are.
  [[nodiscard]] const std::filesystem::path& Models() const { return models_; }
  /// The threshold of each class in use.
  [[nodiscard]] std::map<std::string, float> Thresholds() const;

  /// @param status "first", "last" or anything else
  [[nodiscard]] Judgement Judge(const std::string& picture, const std::string& status);

 private:
  [[nodiscard]] std::string ProblemWith(const nlohmann::json& labels) const;
  [[nodiscard]] nlohmann::json Request(const std::string& status) const;
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
