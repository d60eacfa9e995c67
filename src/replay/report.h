#pragma once

#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

#include "replay/report_file.h"
#include "replay/scoring.h"
#include "replay/totals.h"

namespace varnel::replay {

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
