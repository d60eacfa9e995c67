#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "replay/command_line.h"
#include "replay/matching.h"
#include "replay/scratch_directory.h"
#include "service/analysis/decision/printer_analysis.h"

namespace varnel::service {
class RknnLibrary;
}  // namespace varnel::service

namespace varnel::replay {

/// Why a find carries a flag.
enum class Reason : uint8_t {
  kNone,         ///< it carries none
  kOnlyShown,    ///< its label is answered with zeros, what it shows belongs there
  kRejected,     ///< by the verifying network
  kTooSmall,     ///< or too thin
  kBehindBed,    ///< at the top of the picture
  kThereBefore,  ///< the reference picture explains it
};

/// For people and report.json; null without a reason.
[[nodiscard]] const char* ReasonText(Reason reason);

/// A find with what the algorithm made of it.
struct Find {
  Prediction prediction;
  uint32_t flag = 0;  ///< service::DetectionFlag bits
  Reason reason = Reason::kNone;
  std::optional<float> verified = std::nullopt;  ///< the verifying network's value

  /// Neither rejected nor explained: the algorithm says that it is there.
  [[nodiscard]] bool Stands() const {
    return reason == Reason::kNone || reason == Reason::kOnlyShown;
  }
};

/// What the analysis said about one picture.
struct Judgement {
  std::string picture;
  std::string status;
  int32_t code = 0;  ///< service::AnalysisStatus; without 0 everything below stays empty
  std::string message;
  nlohmann::json statistics = nlohmann::json::object();
  std::vector<Find> finds;             ///< at the thresholds asked for
  std::vector<Prediction> candidates;  ///< at the lowest threshold of a sweep
  bool candidates_full = false;        ///< there may have been more
  bool annotated = false;              ///< an annotated picture was written
  double milliseconds = 0;

  [[nodiscard]] bool Judged() const { return code == 0; }
};

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
