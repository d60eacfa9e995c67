#include "replay/report_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "utils/log_text.h"

namespace varnel::replay {
namespace {

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

std::string ScoresText(const Confusion& confusion, const std::vector<std::string>& classes) {
  const size_t width = NameWidth(classes);
  std::string text = fmt::format("  {:{}} {:>8} {:>8} {:>8} {:>9} {:>7} {:>7}\n", "", width, "hits",
                                 "false", "missed", "precision", "recall", "F1");
  for (size_t cls = 0; cls < classes.size(); ++cls) {
    const Scores scores = confusion.Of(cls);
    text += fmt::format("  {:{}} {:>8} {:>8} {:>8} {:>9} {:>7} {:>7}\n", classes[cls], width,
                        scores.hits, scores.false_alarms, scores.misses, Figure(scores.Precision()),
                        Figure(scores.Recall()), Figure(scores.F1()));
  }
  return text;
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

std::string LeftOutText(const Evaluation& evaluation) {
  std::string text;
  for (const auto& [label, count] : evaluation.OtherLabels()) {
    text += fmt::format("{} objects labelled {} left out: the network has no such class\n", count,
                        utils::LogText(label));
  }
  const std::vector<std::string> unseen = evaluation.Unseen();
  if (!unseen.empty()) {
    text += fmt::format("{} labelled pictures were not judged, {} for example\n", unseen.size(),
                        utils::LogText(unseen.front()));
  }
  if (evaluation.PicturesCut() > 0) {
    text += fmt::format("{} pictures have more candidates than are counted at low thresholds\n",
                        evaluation.PicturesCut());
  }
  return text;
}

}  // namespace

std::string TotalsText(const Totals& totals, const std::vector<std::string>& classes) {
  std::string text = fmt::format("{} pictures judged, {} not\n", totals.Judged(), totals.Failed());
  for (const auto& [reason, count] : totals.Failures())
    text += fmt::format("  {}: {}\n", reason, count);
  for (size_t i = 0; i < classes.size(); ++i) {
    text += fmt::format("  {}: {} found, {} of them stand\n", classes[i], totals.Classes()[i].found,
                        totals.Classes()[i].stands);
  }
  return text + fmt::format("  {:.1f} ms a picture (median {:.1f}, longest {:.1f})\n",
                            totals.MeanTime(), totals.MedianTime(), totals.LongestTime());
}

std::string EvaluationText(const Evaluation& evaluation) {
  const auto& classes = evaluation.Classes();
  return "\nThe network at its thresholds\n" + ScoresText(evaluation.Network(), classes) +
         "\nLabelled (rows) and found as (columns)\n" +
         ConfusionText(evaluation.Network(), classes) + "\nWhat the algorithm left of it\n" +
         ScoresText(evaluation.Decision(), classes) +
         "\nThe network at other thresholds: recall/precision\n" +
         SweepText(evaluation.NetworkSweep(), classes) + LeftOutText(evaluation);
}

}  // namespace varnel::replay
