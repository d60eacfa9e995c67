#include "replay/report_json.h"
#include "utils/last_error.h"

#include <cerrno>
#include <cmath>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace varnel::replay {

namespace {

using Json = nlohmann::ordered_json;

double Rounded(double value, double steps = 10000) {
  return std::round(value * steps) / steps;
}

Json Value(const std::optional<double>& value) {
  return value ? Json(Rounded(*value)) : Json();
}

Json ThresholdJson(float threshold) {
  return Rounded(static_cast<double>(threshold));
}

Json FindJson(const Find& find, const std::vector<std::string>& classes) {
  const Box& box = find.prediction.box;
  const char* reason = ReasonText(find.reason);
  return {{"label", classes.at(find.prediction.cls)},
          {"box", {box.left, box.top, box.right, box.bottom}},
          {"probability", Rounded(static_cast<double>(find.prediction.probability))},
          {"flag", find.flag},
          {"reason", reason != nullptr ? Json(reason) : Json()},
          {"verified", find.verified ? Value(static_cast<double>(*find.verified)) : Json()}};
}

Json ConfusionJson(const Confusion& confusion, const std::vector<std::string>& classes) {
  const auto name = [&](size_t cls) {
    return cls == confusion.Background() ? std::string("background") : classes[cls];
  };
  Json table = Json::object();
  for (size_t truth = 0; truth <= confusion.Classes(); ++truth) {
    for (size_t found = 0; found <= confusion.Classes(); ++found) {
      const bool nothing = truth == confusion.Background() && found == truth;
      table[name(truth)][name(found)] = nothing ? Json() : Json(confusion.Count(truth, found));
    }
  }
  return table;
}

Json SweepOf(const Sweep& sweep, size_t cls) {
  const Sweep::Counts& counts = sweep.Of(cls);
  Json precision = Json::array();
  Json recall = Json::array();
  for (size_t step = 0; step < Sweep::kSteps; ++step) {
    const Scores scores = sweep.At(cls, step);
    precision.push_back(Value(scores.Precision()));
    recall.push_back(Value(scores.Recall()));
  }
  Json best;
  if (const auto range = sweep.Best(cls)) {
    best = {{"from", ThresholdJson(Sweep::Threshold(range->first))},
            {"to", ThresholdJson(Sweep::Threshold(range->last))},
            {"f1", Value(sweep.At(cls, range->first).F1())}};
  }
  return {
      {"objects", counts.objects}, {"hits", counts.hits},    {"false_alarms", counts.false_alarms},
      {"recall", recall},          {"precision", precision}, {"best", best}};
}

Json SweepJson(const Sweep& sweep, const std::vector<std::string>& classes) {
  Json thresholds = Json::array();
  for (size_t step = 0; step < Sweep::kSteps; ++step)
    thresholds.push_back(ThresholdJson(Sweep::Threshold(step)));
  Json figures = Json::object();
  for (size_t cls = 0; cls < classes.size(); ++cls) figures[classes[cls]] = SweepOf(sweep, cls);
  return {{"thresholds", thresholds}, {"classes", figures}};
}

Json ScoresJson(const Confusion& confusion, const std::vector<std::string>& classes) {
  Json figures = Json::object();
  for (size_t cls = 0; cls < classes.size(); ++cls) {
    const Scores scores = confusion.Of(cls);
    figures[classes[cls]] = {{"hits", scores.hits},
                             {"false_alarms", scores.false_alarms},
                             {"misses", scores.misses},
                             {"precision", Value(scores.Precision())},
                             {"recall", Value(scores.Recall())},
                             {"f1", Value(scores.F1())}};
  }
  return {{"classes", figures}, {"confusion", ConfusionJson(confusion, classes)}};
}

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

Json PictureJson(const Judgement& judgement, const std::vector<std::string>& classes) {
  Json detections = Json::array();
  for (const Find& find : judgement.finds) detections.push_back(FindJson(find, classes));
  return {{"picture", judgement.picture},
          {"detect_status", judgement.status},
          {"code", judgement.code},
          {"message", judgement.message},
          {"milliseconds", Rounded(judgement.milliseconds, 10)},
          {"annotated", judgement.annotated ? Json("annotated/" + judgement.picture) : Json()},
          {"detections", detections},
          {"statistics", judgement.statistics}};
}

Json ThresholdsJson(const std::map<std::string, float>& thresholds) {
  Json json = Json::object();
  for (const auto& [label, threshold] : thresholds) json[label] = ThresholdJson(threshold);
  return json;
}

Json PictureListJson(const PictureList& list) {
  return {{"pictures", list.pictures.size()}, {"bytes", list.bytes}, {"sha256", list.sha256}};
}

Json SkippedJson(const std::vector<SkippedFile>& skipped) {
  std::map<std::string, int64_t> reasons;
  Json files = Json::array();
  for (const SkippedFile& file : skipped) {
    ++reasons[file.reason];
    files.push_back({{"file", file.name}, {"reason", file.reason}});
  }
  return {{"count", skipped.size()}, {"reasons", reasons}, {"files", files}};
}

Json TotalsJson(const Totals& totals, const std::vector<std::string>& classes) {
  Json labels = Json::object();
  for (size_t i = 0; i < classes.size(); ++i) {
    const Totals::OfClass& cls = totals.classes[i];
    labels[classes[i]] = {{"found", cls.found}, {"stands", cls.stands}, {"reasons", cls.reasons}};
  }
  return {{"judged", totals.judged},
          {"not_judged", totals.Failed()},
          {"reasons", totals.failures},
          {"without_annotated_picture", totals.not_annotated},
          {"labels", labels},
          {"milliseconds",
           {{"mean", Rounded(totals.MeanTime(), 10)},
            {"median", Rounded(totals.MedianTime(), 10)},
            {"longest", Rounded(totals.LongestTime(), 10)}}}};
}

Json ScoringJson(const Scoring& scoring) {
  const auto& classes = scoring.classes;
  Json json = {{"network", ScoresJson(scoring.network, classes)},
               {"decision", ScoresJson(scoring.decision, classes)},
               {"sweep", SweepJson(scoring.sweep, classes)}};
  for (size_t cls = 0; cls < classes.size(); ++cls)
    json["decision"]["classes"][classes[cls]]["explained"] = scoring.explained[cls];
  json["sweep"]["pictures_with_more_candidates"] = scoring.pictures_cut;
  json["verify_sweep"] = scoring.verify_sweep ? SweepJson(*scoring.verify_sweep, classes) : Json();
  json["labelled_but_not_judged"] = scoring.unseen;
  json["labels_of_no_class"] = scoring.other_labels;
  return json;
}

Json ReadReport(const std::filesystem::path& file,
                const std::function<void(const Json&)>& picture) {
  std::ifstream in(file, std::ios::binary);
  if (!in) throw std::system_error(utils::LastError(), file.string());
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
