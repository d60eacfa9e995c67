#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "replay/scores.h"
#include "replay/scoring.h"
#include "utils/private_directory.h"

namespace varnel::replay {

/// report.json, written picture by picture, so that a folder of any size needs no more memory than
/// a small one. The file is there when it is whole.
class ReportFile {
 public:
  using Json = nlohmann::ordered_json;

  /// @param head its members begin the report
  ReportFile(const std::filesystem::path& path, const Json& head);

  void AddPicture(const Json& picture);
  /// @param tail its members end the report
  [[nodiscard]] std::error_code Finish(const Json& tail);

 private:
  std::error_code error_;
  std::string name_;
  std::optional<utils::PrivateDirectory> draft_;
  std::ofstream out_;
  bool first_ = true;
};

/// Pictures, reasons, finds and times.
[[nodiscard]] std::string TotalsText(const Totals& totals, const std::vector<std::string>& classes);
/// How many files of the folder were skipped and why; empty without any.
/// @param skipped of report.json
[[nodiscard]] std::string SkippedText(const nlohmann::ordered_json& skipped);
/// Scores and confusion, the sweeps, and what was left out.
[[nodiscard]] std::string ScoringText(const Scoring& scoring);

/// Removes what an earlier report left: what lies in the folder afterwards is of the next one.
void RemoveReport(const std::filesystem::path& folder);

/// Everything that a replay, or the merging of its shards, tells: report.json, the plots of the
/// thresholds, and the texts for people.
class Report {
 public:
  using Json = ReportFile::Json;

  /// @param algorithm outlives this
  /// @param head begins report.json
  /// @param people gets the texts; outlives this
  Report(const Algorithm& algorithm, const std::filesystem::path& folder, Json head,
         std::FILE* people);

  void AddPicture(const Json& picture) { file_.AddPicture(picture); }
  /// @param scoring nothing without labels
  /// @return whether every picture was judged and everything is written
  [[nodiscard]] bool Finish(const Totals& totals, const std::optional<Scoring>& scoring,
                            bool interrupted);

 private:
  [[nodiscard]] bool PlotAll(const Scoring& scoring) const;
  [[nodiscard]] bool Plot(const char* name, const char* title, const Sweep& sweep,
                          const char* thresholds) const;
  [[nodiscard]] bool Written(const std::filesystem::path& file, const std::error_code& error) const;

  const std::vector<std::string>& classes_;
  const std::filesystem::path folder_;
  const Json head_;
  std::FILE* const people_;
  ReportFile file_;
};

}  // namespace varnel::replay
