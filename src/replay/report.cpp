#include "replay/report.h"

#include <map>
#include <utility>

#include "replay/complaint.h"
#include "replay/report_json.h"
#include "replay/report_text.h"
#include "replay/sweep_plot.h"
#include "utils/atomic_file.h"

namespace varnel::replay {
namespace {

namespace fs = std::filesystem;

constexpr const char* kReport = "report.json";
constexpr const char* kSweepPlot = "sweep.svg";
constexpr const char* kVerifySweepPlot = "verify_sweep.svg";

bool IsComplete(const Totals& totals, bool interrupted) {
  if (totals.not_annotated > 0)
    Complain(std::to_string(totals.not_annotated) + " annotated pictures cannot be written");
  if (interrupted) Complain("interrupted");
  return totals.not_annotated == 0 && totals.Failed() == 0 && !interrupted;
}

}  // namespace

void RemoveReport(const fs::path& folder) {
  for (const char* name : {kReport, kSweepPlot, kVerifySweepPlot}) fs::remove(folder / name);
}

Report::Report(const Algorithm& algorithm, const fs::path& folder, Json head, std::FILE* people)
    : classes_(algorithm.labels),
      folder_(folder),
      head_(std::move(head)),
      people_(people),
      file_(folder / kReport, head_) {}

bool Report::Finish(const Totals& totals, const std::optional<Scoring>& scoring, bool interrupted) {
  Json tail = {{"interrupted", interrupted}, {"totals", TotalsJson(totals, classes_)}};
  std::string text = TotalsText(totals, classes_) + SkippedText(head_.at("skipped"));
  if (scoring) {
    tail.update(ScoringJson(*scoring));
    text += ScoringText(*scoring);
  }
  std::fputs(text.c_str(), people_);
  bool good = Written(folder_ / kReport, file_.Finish(tail));
  if (scoring) good &= PlotAll(*scoring);
  return good & IsComplete(totals, interrupted) & (std::fflush(people_) == 0);
}

bool Report::PlotAll(const Scoring& scoring) const {
  bool good = Plot(kSweepPlot, "recall and precision of the network", scoring.sweep, "thresholds");
  if (scoring.verify_sweep) {
    good &= Plot(kVerifySweepPlot, "recall and precision over the threshold of the verification",
                 *scoring.verify_sweep, "verify_thresholds");
  }
  return good;
}

bool Report::Plot(const char* name, const char* title, const Sweep& sweep,
                  const char* thresholds) const {
  const auto in_use = head_.at(thresholds).get<std::map<std::string, float>>();
  const fs::path file = folder_ / name;
  return Written(file, utils::WriteFileAtomically(file, SweepPlot(title, sweep, classes_, in_use)));
}

bool Report::Written(const fs::path& file, const std::error_code& error) const {
  if (error) {
    Complain(file.string() + ": " + error.message());
  } else {
    std::fprintf(people_, "%s\n", file.c_str());
  }
  return !error;
}

}  // namespace varnel::replay
