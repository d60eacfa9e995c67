#include "replay/report_json.h"

#include <cmath>

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
  return {{"label", classes.at(find.prediction.cls)},
          {"box", {box.left, box.top, box.right, box.bottom}},
          {"probability", Rounded(static_cast<double>(find.prediction.probability))},
          {"flag", find.flag}};
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
  return {{"recall", recall}, {"precision", precision}, {"best", best}};
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

Json TotalsJson(const Totals& totals, const std::vector<std::string>& classes) {
  Json labels = Json::object();
  for (size_t i = 0; i < classes.size(); ++i) {
    labels[classes[i]] = {{"found", totals.Classes()[i].found},
                          {"stands", totals.Classes()[i].stands}};
  }
  return {{"judged", totals.Judged()},
          {"not_judged", totals.Failed()},
          {"reasons", totals.Failures()},
          {"without_annotated_picture", totals.NotAnnotated()},
          {"labels", labels},
          {"milliseconds",
           {{"mean", Rounded(totals.MeanTime(), 10)},
            {"median", Rounded(totals.MedianTime(), 10)},
            {"longest", Rounded(totals.LongestTime(), 10)}}}};
}

Json ScoresJson(const Evaluation& evaluation, const Confusion& which) {
  Json classes = Json::object();
  for (size_t cls = 0; cls < which.Classes(); ++cls) {
    const Scores scores = which.Of(cls);
    classes[evaluation.Classes()[cls]] = {{"hits", scores.hits},
                                          {"false_alarms", scores.false_alarms},
                                          {"misses", scores.misses},
                                          {"precision", Value(scores.Precision())},
                                          {"recall", Value(scores.Recall())},
                                          {"f1", Value(scores.F1())}};
  }
  return {{"classes", classes}, {"confusion", ConfusionJson(which, evaluation.Classes())}};
}

Json SweepJson(const Evaluation& evaluation) {
  Json thresholds = Json::array();
  for (size_t step = 0; step < Sweep::kSteps; ++step)
    thresholds.push_back(ThresholdJson(Sweep::Threshold(step)));
  Json classes = Json::object();
  for (size_t cls = 0; cls < evaluation.Classes().size(); ++cls)
    classes[evaluation.Classes()[cls]] = SweepOf(evaluation.NetworkSweep(), cls);
  return {{"thresholds", thresholds},
          {"classes", classes},
          {"pictures_with_more_candidates", evaluation.PicturesCut()}};
}

}  // namespace varnel::replay
