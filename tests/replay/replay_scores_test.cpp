// Matching, scores, sweep and plot, against figures worked out by hand.
#include <gmock/gmock.h>

#include <regex>

#include "replay/evaluation.h"
#include "replay/matching.h"
#include "replay/sweep.h"

namespace varnel::replay {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

TEST(ReplayMatchingTest, OverlapIsSharedByCommonArea) {
  const Box box{0, 0, 10, 10};
  EXPECT_EQ(Iou(box, box), 1);
  EXPECT_EQ(Iou(box, {0, 0, 10, 5}), 0.5);
  EXPECT_DOUBLE_EQ(Iou(box, {5, 0, 15, 10}), 50.0 / 150);
  EXPECT_EQ(Iou(box, {10, 0, 20, 10}), 0);
  EXPECT_EQ(Iou({1, 1, 1, 1}, {1, 1, 1, 1}), 0);
}

TEST(ReplayMatchingTest, ThePredictionTakesTheObjectItOverlapsMost) {
  const std::vector<Truth> truths = {{0, {0, 0, 10, 6}}, {0, {0, 0, 10, 9}}, {1, {0, 0, 10, 10}}};
  const std::vector<Prediction> predictions = {
      {0, 0.5F, {0, 0, 10, 10}}, {0, 0.9F, {0, 0, 10, 10}}, {0, 0.4F, {0, 0, 10, 10}}};
  EXPECT_THAT(MatchWithinClasses(truths, predictions), ElementsAre(0U, 1U, std::nullopt));
  EXPECT_THAT(MatchAcrossClasses(truths, predictions), ElementsAre(0U, 1U, 2U));
}

/// Two classes, every way to be right and wrong.
struct Picture {
  std::vector<Truth> truths = {{0, {0, 0, 100, 100}},
                               {0, {200, 0, 300, 100}},
                               {1, {400, 0, 500, 100}},
                               {1, {600, 0, 700, 100}}};
  std::vector<Prediction> predictions = {
      {0, 0.90F, {0, 0, 100, 100}},    // false alarm: the next one is more probable
      {0, 0.95F, {0, 0, 100, 60}},     // hit
      {1, 0.99F, {200, 0, 300, 100}},  // the wrong class
      {1, 0.80F, {400, 0, 500, 49}},   // overlaps too little: false alarm and miss
      {0, 0.70F, {600, 0, 700, 100}},  // false alarm: the next one has the right class
      {1, 0.60F, {600, 0, 700, 100}},  // hit
  };
};

TEST(ReplayScoresTest, ConfusionPrecisionRecallAndF1) {
  const Picture picture;
  Confusion confusion(2);
  for (int i = 0; i < 2; ++i) confusion.Add(picture.truths, picture.predictions);
  std::vector<int64_t> table;
  for (size_t truth = 0; truth < 3; ++truth)
    for (size_t found = 0; found < 3; ++found) table.push_back(confusion.Count(truth, found) / 2);
  EXPECT_THAT(table, ElementsAre(1, 1, 0, 0, 1, 1, 2, 1, 0));
  for (size_t cls = 0; cls < 2; ++cls) {
    EXPECT_DOUBLE_EQ(confusion.Of(cls).Precision().value(), 1.0 / 3);
    EXPECT_DOUBLE_EQ(confusion.Of(cls).Recall().value(), 0.5);
    EXPECT_DOUBLE_EQ(confusion.Of(cls).F1().value(), 0.4);
  }
  const Scores nothing = Confusion(1).Of(0);
  EXPECT_FALSE(nothing.Precision() || nothing.Recall() || nothing.F1());
}

TEST(ReplaySweepTest, EachThresholdCutsTheLessProbable) {
  const Picture picture;
  Sweep sweep(2);
  sweep.Add(picture.truths, picture.predictions);
  const auto at = [&](size_t cls, size_t step) {
    const Scores scores = sweep.At(cls, step);
    return std::array{scores.hits, scores.false_alarms, scores.misses};
  };
  EXPECT_THAT(at(0, 0), ElementsAre(1, 2, 1)) << "0.05";
  EXPECT_THAT(at(0, 13), ElementsAre(1, 1, 1)) << "0.70 is not exceeded by 0.70";
  EXPECT_THAT(at(0, 17), ElementsAre(1, 0, 1)) << "0.90";
  EXPECT_THAT(at(0, 18), ElementsAre(0, 0, 2)) << "0.95";
  EXPECT_THAT(at(1, 11), ElementsAre(0, 2, 2)) << "0.60";
  EXPECT_EQ(sweep.Best(0)->first, 17U);
  EXPECT_EQ(sweep.Best(0)->last, 17U);
  EXPECT_EQ(sweep.Best(1)->first, 0U);
  EXPECT_EQ(sweep.Best(1)->last, 10U);
  EXPECT_FALSE(Sweep(1).Best(0));
}

TEST(ReplaySweepTest, VerificationIsSweptByItsValue) {
  const std::vector<Truth> truths = {{0, {0, 0, 10, 10}}};
  const std::vector<Prediction> finds = {{0, 0.9F, {0, 0, 10, 10}},  // chooses first, until cut
                                         {0, 0.8F, {0, 0, 10, 9}},
                                         {0, 0.85F, {50, 0, 60, 10}}};  // could not be verified
  Sweep sweep(1);
  sweep.AddByValue(truths, finds, std::vector<std::optional<float>>{0.3F, 0.7F, std::nullopt});
  const auto at = [&](size_t step) {
    return std::array{sweep.At(0, step).hits, sweep.At(0, step).false_alarms};
  };
  EXPECT_THAT(at(5), ElementsAre(1, 2)) << "0.30 passes 0.30";
  EXPECT_THAT(at(6), ElementsAre(1, 1)) << "the second find takes the object";
  EXPECT_THAT(at(13), ElementsAre(1, 1)) << "0.70";
  EXPECT_THAT(at(14), ElementsAre(0, 1));
}

TEST(ReplayEvaluationTest, TellsNetworkFromDecisionAndWhatWasLeftOut) {
  const Box box{0, 0, 10, 10};
  const Box known{20, 20, 30, 30};
  const Box rejected{40, 40, 50, 50};
  Evaluation evaluation(
      *FindAlgorithm("noodle"),
      {{"a.jpg", {{"noodle", box}, {"noodle", known}, {"noodle", rejected}, {"item", box}}},
       {"failed.jpg", {{"noodle", box}}},
       {"missing.jpg", {{"noodle", box}}}});
  Judgement judgement;
  judgement.picture = "a.jpg";
  judgement.finds = {{{0, 0.9F, box}},
                     {{0, 0.95F, box}, 1, Reason::kThereBefore, 0.9F},  // the other one hits
                     {{0, 0.8F, known}, 1, Reason::kThereBefore, 0.9F},
                     {{0, 0.8F, rejected}, 1, Reason::kRejected, 0.2F}};
  evaluation.Add(judgement);
  judgement.picture = "failed.jpg";
  judgement.code = -5;
  evaluation.Add(judgement);
  const Scoring result = evaluation.Result();
  EXPECT_EQ(result.network.Of(0).Recall(), 1);
  EXPECT_THAT(result.explained, ElementsAre(1));
  EXPECT_EQ(result.decision.Of(0).Precision(), 1);
  EXPECT_EQ(result.decision.Of(0).Recall(), 0.5) << "one hit, one rejected";
  EXPECT_EQ(result.verify_sweep->At(0, 13).hits, 2) << "whatever the reference explains";
  EXPECT_THAT(result.other_labels, ElementsAre(Pair("item", 1)));
  EXPECT_THAT(result.unseen, ElementsAre("failed.jpg", "missing.jpg"));
}

/// Whether every element is closed in its turn.
bool IsWellFormed(const std::string& xml) {
  static const std::regex kTag(R"(<(/?)(\w+)((?:\s+[\w:-]+="[^"<&]*")*)\s*(/?)>)");
  std::vector<std::string> open;
  for (std::sregex_iterator tag(xml.begin(), xml.end(), kTag), end; tag != end; ++tag) {
    if ((*tag)[1].length() > 0) {
      if (open.empty() || open.back() != (*tag)[2]) return false;
      open.pop_back();
    } else if ((*tag)[4].length() == 0) {
      open.push_back((*tag)[2]);
    }
  }
  const std::string rest = std::regex_replace(xml, kTag, "");
  return open.empty() && rest.find('<') == std::string::npos;
}

TEST(ReplayPlotTest, IsWellFormedAndBreaksWhereThereIsNoFigure) {
  Sweep sweep(2);
  sweep.Add(std::vector<Truth>{{0, {0, 0, 10, 10}}},
            std::vector<Prediction>{{0, 0.52F, {0, 0, 10, 10}}});
  const std::string plot = SweepPlot("title", sweep, {"a<b&c", "absent"}, {{"a<b&c", 0.83F}});
  EXPECT_TRUE(IsWellFormed(plot));
  EXPECT_FALSE(IsWellFormed(plot + "<g>"));
  EXPECT_THAT(plot, HasSubstr("a&lt;b&amp;c recall"));
  EXPECT_THAT(plot, HasSubstr("threshold 0.83"));
  EXPECT_THAT(plot, HasSubstr("prefers-color-scheme:dark"));
  // Precision has a value in the ten steps up to 0.50 only, at the upper edge.
  EXPECT_THAT(plot, HasSubstr("<polyline class=\"line c0 dash\" points=\"84.0,40.0 "));
  EXPECT_THAT(plot, HasSubstr(" 300.0,40.0\"/>"));
  EXPECT_THAT(plot, testing::Not(HasSubstr("polyline class=\"line c1")));
}

}  // namespace
}  // namespace varnel::replay
