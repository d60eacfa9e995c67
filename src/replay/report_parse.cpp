#include "replay/report_parse.h"

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace varnel::replay {
namespace {

using Json = nlohmann::ordered_json;
using Counts = std::map<std::string, int64_t>;

/// Depths as the parser counts them.
constexpr int kMembers = 1;
constexpr int kElements = 2;

Confusion ParseConfusion(const Json& table, const std::vector<std::string>& classes) {
  Confusion confusion(classes.size());
  std::vector<std::string> names = classes;
  names.emplace_back("background");
  for (size_t truth = 0; truth < names.size(); ++truth) {
    for (size_t found = 0; found < names.size(); ++found) {
      const Json& count = table.at(names[truth]).at(names[found]);
      if (!count.is_null()) confusion.Set(truth, found, count.get<int64_t>());
    }
  }
  return confusion;
}

std::vector<int64_t> ParseSteps(const Json& steps) {
  auto counts = steps.get<std::vector<int64_t>>();
  counts.resize(Sweep::kSteps);
  return counts;
}

Sweep ParseSweep(const Json& json, const std::vector<std::string>& classes) {
  Sweep sweep(classes.size());
  for (size_t cls = 0; cls < classes.size(); ++cls) {
    const Json& figures = json.at("classes").at(classes[cls]);
    sweep.Set(cls, {ParseSteps(figures.at("hits")), ParseSteps(figures.at("false_alarms")),
                    figures.at("objects").get<int64_t>()});
  }
  return sweep;
}

}  // namespace

Json ReadReport(const std::filesystem::path& file,
                const std::function<void(const Json&)>& picture) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::system_error(errno, std::generic_category(), file.string());
  std::string member;
  const auto take = [&](int depth, Json::parse_event_t event, const Json& parsed) {
    if (depth == kMembers && event == Json::parse_event_t::key) member = parsed.get<std::string>();
    const bool one =
        depth == kElements && event == Json::parse_event_t::object_end && member == "pictures";
    if (one) picture(parsed);
    return !one;
  };
  Json report = Json::parse(in, take, false);
  if (!report.is_object()) throw std::runtime_error(file.string() + ": no whole report");
  report.erase("pictures");
  return report;
}

Totals ParseTotals(const Json& json, const Algorithm& algorithm) {
  Totals totals(algorithm.labels.size());
  totals.judged = json.at("judged").get<int64_t>();
  totals.failures = json.at("reasons").get<Counts>();
  totals.not_annotated = json.at("without_annotated_picture").get<int64_t>();
  for (size_t cls = 0; cls < totals.classes.size(); ++cls) {
    const Json& figures = json.at("labels").at(algorithm.labels[cls]);
    totals.classes[cls] = {figures.at("found").get<int64_t>(), figures.at("stands").get<int64_t>(),
                           figures.at("reasons").get<Counts>()};
  }
  return totals;
}

Scoring ParseScoring(const Json& report, const Algorithm& algorithm) {
  Scoring scoring(algorithm);
  const auto& classes = scoring.classes;
  const Json& decision = report.at("decision");
  scoring.network = ParseConfusion(report.at("network").at("confusion"), classes);
  scoring.decision = ParseConfusion(decision.at("confusion"), classes);
  for (size_t cls = 0; cls < classes.size(); ++cls)
    scoring.explained[cls] = decision.at("classes").at(classes[cls]).at("explained").get<int64_t>();
  scoring.sweep = ParseSweep(report.at("sweep"), classes);
  if (scoring.verify_sweep) scoring.verify_sweep = ParseSweep(report.at("verify_sweep"), classes);
  scoring.pictures_cut = report.at("sweep").at("pictures_with_more_candidates").get<int64_t>();
  scoring.other_labels = report.at("labels_of_no_class").get<Counts>();
  scoring.unseen = report.at("labelled_but_not_judged").get<std::set<std::string>>();
  return scoring;
}

}  // namespace varnel::replay
