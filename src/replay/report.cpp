#include "replay/report.h"

#include <fmt/format.h>
#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "replay/report_json.h"
#include "replay/sweep.h"
#include "replay/terminal.h"
#include "utils/atomic_file.h"
#include "utils/log_text.h"

namespace varnel::replay {

namespace {

/// File names need not be UTF-8.
std::string Text(const ReportFile::Json& json, int indent = -1) {
  return json.dump(indent, ' ', false, ReportFile::Json::error_handler_t::replace);
}

/// The members of an object without its braces, a line each; empty objects have none.
std::string Members(const ReportFile::Json& object) {
  std::string text;
  for (const auto& [key, value] : object.items())
    text += (text.empty() ? "" : ",\n") + Text(key) + ": " + Text(value, 1);
  return text;
}

std::filesystem::path DirectoryOf(const std::filesystem::path& path) {
  return path.has_parent_path() ? path.parent_path() : ".";
}

constexpr const char* kBackground = "background";
constexpr size_t kLeastWidth = 11;  // of "0.000/0.000"

std::string Figure(const std::optional<double>& value) {
  return value ? fmt::format("{:.3f}", *value) : "-";
}

size_t Width(const std::string& text) {
  return std::max(text.size(), kLeastWidth);
}

size_t NameWidth(const std::vector<std::string>& classes) {
  size_t width = std::string_view(kBackground).size();
  for (const std::string& name : classes) width = std::max(width, name.size());
  return width;
}

/// @param explained of each class; empty for a table without that column
std::string ScoresText(const Confusion& confusion, const std::vector<std::string>& classes,
                       const std::vector<int64_t>& explained) {
  const size_t width = NameWidth(classes);
  const auto row = [&](const std::string& name, const auto& hits, const auto& wrong,
                       const std::string& known, const auto& missed, const std::string& figures) {
    const std::string column = explained.empty() ? "" : fmt::format(" {:>9}", known);
    return fmt::format("  {:{}} {:>8} {:>8}{} {:>8} {}\n", name, width, hits, wrong, column, missed,
                       figures);
  };
  std::string text = row("", "hits", "false", "explained", "missed",
                         fmt::format("{:>9} {:>7} {:>7}", "precision", "recall", "F1"));
  for (size_t cls = 0; cls < classes.size(); ++cls) {
    const Scores scores = confusion.Of(cls);
    text += row(classes[cls], scores.hits, scores.false_alarms,
                explained.empty() ? "" : std::to_string(explained[cls]), scores.misses,
                fmt::format("{:>9} {:>7} {:>7}", Figure(scores.Precision()),
                            Figure(scores.Recall()), Figure(scores.F1())));
  }
  return text;
}

std::string DecisionText(const Scoring& scoring) {
  std::string text = "\nWhat the algorithm left of it\n" +
                     ScoresText(scoring.decision, scoring.classes, scoring.explained);
  const bool any = std::any_of(scoring.explained.begin(), scoring.explained.end(),
                               [](int64_t count) { return count > 0; });
  return any ? text + "  explained: there before the print; neither hits nor missed\n" : text;
}

std::string ConfusionText(const Confusion& confusion, std::vector<std::string> names) {
  const size_t width = NameWidth(names);
  names.emplace_back(kBackground);
  std::string text = fmt::format("  {:{}}", "", width);
  for (const std::string& name : names) text += fmt::format(" {:>{}}", name, Width(name));
  for (size_t truth = 0; truth < names.size(); ++truth) {
    text += fmt::format("\n  {:{}}", names[truth], width);
    for (size_t found = 0; found < names.size(); ++found) {
      const bool nothing = truth == confusion.Background() && found == truth;
      const std::string count = nothing ? "-" : std::to_string(confusion.Count(truth, found));
      text += fmt::format(" {:>{}}", count, Width(names[found]));
    }
  }
  return text + "\n";
}

std::string SweepText(const Sweep& sweep, const std::vector<std::string>& classes) {
  std::string text = "  threshold";
  for (const std::string& name : classes) text += fmt::format(" {:>{}}", name, Width(name));
  for (size_t step = 0; step < Sweep::kSteps; ++step) {
    text += fmt::format("\n  {:>9.2f}", Sweep::Threshold(step));
    for (size_t cls = 0; cls < classes.size(); ++cls) {
      const Scores scores = sweep.At(cls, step);
      text += fmt::format(" {:>{}}", Figure(scores.Recall()) + "/" + Figure(scores.Precision()),
                          Width(classes[cls]));
    }
  }
  text += "\n";
  for (size_t cls = 0; cls < classes.size(); ++cls) {
    if (const auto best = sweep.Best(cls)) {
      text += fmt::format("  {}: best F1 {} from {:.2f} to {:.2f}\n", classes[cls],
                          Figure(sweep.At(cls, best->first).F1()), Sweep::Threshold(best->first),
                          Sweep::Threshold(best->last));
    }
  }
  return text;
}

std::string VerifySweepText(const Scoring& scoring) {
  if (!scoring.verify_sweep) return {};
  return "\nNetwork and verification at other thresholds of the latter: recall/precision\n" +
         SweepText(*scoring.verify_sweep, scoring.classes);
}

std::string LeftOutText(const Scoring& scoring) {
  std::string text;
  for (const auto& [label, count] : scoring.other_labels) {
    text += fmt::format("{} objects labelled {} left out: the network has no such class\n", count,
                        utils::LogText(label));
  }
  const std::set<std::string>& unseen = scoring.unseen;
  if (!unseen.empty()) {
    text += fmt::format("{} labelled pictures were not judged, {} for example\n", unseen.size(),
                        utils::LogText(*unseen.begin()));
  }
  if (scoring.pictures_cut > 0) {
    text += fmt::format("{} pictures have more candidates than are counted at low thresholds\n",
                        scoring.pictures_cut);
  }
  return text;
}

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

ReportFile::ReportFile(const std::filesystem::path& path, const Json& head)
    : name_(path.filename()), draft_(utils::PrivateDirectory::Create(DirectoryOf(path), error_)) {
  if (!draft_) return;
  out_.open(draft_->PathOf(name_), std::ios::binary);
  out_ << "{\n" << Members(head) << ",\n\"pictures\": [";
}

void ReportFile::AddPicture(const Json& picture) {
  out_ << (first_ ? "\n" : ",\n") << Text(picture);
  first_ = false;
}

std::error_code ReportFile::Finish(const Json& tail) {
  if (!draft_) return error_;
  out_ << "\n],\n" << Members(tail) << "\n}\n";
  out_.close();
  if (!out_) return std::make_error_code(std::errc::io_error);
  return draft_->Publish(name_, name_, 0644);
}

std::string TotalsText(const Totals& totals, const std::vector<std::string>& classes) {
  std::string text = fmt::format("{} pictures judged, {} not\n", totals.judged, totals.Failed());
  for (const auto& [reason, count] : totals.failures)
    text += fmt::format("  {}: {}\n", reason, count);
  for (size_t i = 0; i < classes.size(); ++i) {
    const Totals::OfClass& cls = totals.classes[i];
    text += fmt::format("  {}: {} found, {} of them stand\n", classes[i], cls.found, cls.stands);
    for (const auto& [reason, count] : cls.reasons)
      text += fmt::format("    {}: {}\n", reason, count);
  }
  return text + fmt::format("  {:.1f} ms a picture (median {:.1f}, longest {:.1f})\n",
                            totals.MeanTime(), totals.MedianTime(), totals.LongestTime());
}

std::string SkippedText(const nlohmann::ordered_json& skipped) {
  if (skipped.at("count") == 0) return {};
  std::string text = fmt::format("Skipped: {}\n", skipped.at("count").get<int64_t>());
  for (const auto& [reason, count] : skipped.at("reasons").items())
    text += fmt::format("  {}: {}\n", reason, count.get<int64_t>());
  return text;
}

std::string ScoringText(const Scoring& scoring) {
  const auto& classes = scoring.classes;
  return "\nThe network at its thresholds\n" + ScoresText(scoring.network, classes, {}) +
         "\nLabelled (rows) and found as (columns)\n" + ConfusionText(scoring.network, classes) +
         DecisionText(scoring) + "\nThe network at other thresholds: recall/precision\n" +
         SweepText(scoring.sweep, classes) + VerifySweepText(scoring) + LeftOutText(scoring);
}

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
