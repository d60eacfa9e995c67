#include "service/analysis/network/post_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <tuple>
#include <vector>

namespace varnel::service {
namespace {

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// Outputs of a network with the memory behind them.
struct Outputs {
  struct Branch {
    int grid_h;
    int grid_w;
    std::vector<float> boxes;
    std::vector<float> scores;
  };
  int width;
  int height;
  int classes;
  int dfl_len;
  std::vector<Branch> branches;
  LetterBox letterbox;
  std::vector<float> thresholds;
  float nms = 0.5F;

  Outputs(int w, int h, int class_count, int dfl, const std::vector<std::pair<int, int>>& grids)
      : width(w), height(h), classes(class_count), dfl_len(dfl) {
    thresholds.assign(static_cast<size_t>(classes), 0.5F);
    for (const auto& [rows, columns] : grids) {
      const auto cells = static_cast<size_t>(rows) * static_cast<size_t>(columns);
      branches.push_back({rows, columns, std::vector<float>(cells * static_cast<size_t>(4 * dfl)),
                          std::vector<float>(cells * static_cast<size_t>(classes))});
    }
  }

  static size_t At(const Branch& branch, int channel, int row, int column) {
    const int index = (channel * branch.grid_h + row) * branch.grid_w + column;
    return static_cast<size_t>(index);
  }
  /// An object with whole distances to its left, top, right and bottom edge.
  void Place(size_t branch, int row, int column, int cls, float score,
             const std::array<int, 4>& distances) {
    Branch& b = branches[branch];
    b.scores[At(b, cls, row, column)] = score;
    for (size_t side = 0; side < 4; ++side) {
      b.boxes[At(b, static_cast<int>(side) * dfl_len + distances[side], row, column)] = 80;
    }
  }

  [[nodiscard]] std::vector<OutputBranch> Views() const {
    std::vector<OutputBranch> views;
    for (const Branch& b : branches)
      views.push_back({b.boxes, b.scores, dfl_len, b.grid_h, b.grid_w});
    return views;
  }
  [[nodiscard]] DetectionList Process() const {
    DetectionList found;
    found.count = 99;
    EXPECT_EQ(post_process(Views(), {width, height, letterbox, thresholds, nms}, found), 0);
    return found;
  }
};

/// The same once more, straight from the formulas.
class Oracle {
 public:
  explicit Oracle(const Outputs& outputs) : o_(outputs) {}

  std::vector<Detection> Find() {
    for (const Outputs::Branch& branch : o_.branches) Collect(branch);
    std::stable_sort(boxes_.begin(), boxes_.end(),
                     [](const Box& a, const Box& b) { return a.score > b.score; });
    std::vector<Box> kept;
    std::vector<Detection> found;
    for (const Box& box : boxes_) {
      const auto hides = [&](const Box& better) {
        return better.cls == box.cls && Iou(better, box) > o_.nms;
      };
      if (std::any_of(kept.begin(), kept.end(), hides)) continue;
      kept.push_back(box);
      if (found.size() < 128) found.push_back(ToPicture(box));
    }
    return found;
  }

 private:
  struct Box {
    float x, y, w, h, score;
    int cls;
  };

  void Collect(const Outputs::Branch& branch) {
    for (int row = 0; row < branch.grid_h; ++row) {
      for (int column = 0; column < branch.grid_w; ++column) CollectCell(branch, row, column);
    }
  }

  void CollectCell(const Outputs::Branch& branch, int row, int column) {
    int best = -1;
    float best_score = 0;
    for (int cls = 0; cls < o_.classes; ++cls) {
      const float score = branch.scores[Outputs::At(branch, cls, row, column)];
      if (!std::isfinite(score) || !(score > o_.thresholds[static_cast<size_t>(cls)])) continue;
      if (best < 0 || score > best_score) {
        best = cls;
        best_score = score;
      }
    }
    if (best < 0) return;
    float d[4];
    for (int side = 0; side < 4; ++side) d[side] = Distance(branch, row, column, side);
    const int whole_stride = o_.height / branch.grid_h;
    const auto stride = static_cast<float>(whole_stride);
    const auto i = static_cast<float>(row);
    const auto j = static_cast<float>(column);
    const float x1 = (j - d[0] + 0.5F) * stride;
    const float y1 = (i - d[1] + 0.5F) * stride;
    const float x2 = (j + d[2] + 0.5F) * stride;
    const float y2 = (i + d[3] + 0.5F) * stride;
    for (const float edge : {x1, y1, x2, y2}) {
      if (!std::isfinite(edge)) return;
    }
    boxes_.push_back({x1, y1, x2 - x1, y2 - y1, best_score, best});
  }

  float Distance(const Outputs::Branch& branch, int row, int column, int side) const {
    float sum = 0;
    const auto exponential = [&](int k) {
      return std::exp(branch.boxes[Outputs::At(branch, side * o_.dfl_len + k, row, column)]);
    };
    for (int k = 0; k < o_.dfl_len; ++k) sum += exponential(k);
    float expectation = 0;
    for (int k = 0; k < o_.dfl_len; ++k)
      expectation += exponential(k) / sum * static_cast<float>(k);
    return expectation;
  }

  static float Iou(const Box& a, const Box& b) {
    const float w = std::max(0.0F, std::min(a.x + a.w, b.x + b.w) - std::max(a.x, b.x) + 1.0F);
    const float h = std::max(0.0F, std::min(a.y + a.h, b.y + b.h) - std::max(a.y, b.y) + 1.0F);
    const float overlap = w * h;
    const float both = (a.w + 1) * (a.h + 1) + (b.w + 1) * (b.h + 1) - overlap;
    return both <= 0 ? 0 : overlap / both;
  }

  [[nodiscard]] Detection ToPicture(const Box& box) const {
    const auto edge = [&](float value, int pad, int limit) {
      const float moved = value - static_cast<float>(pad);
      const float inside = moved < 0 ? 0 : std::min(moved, static_cast<float>(limit));
      return static_cast<int32_t>(static_cast<float>(static_cast<int>(inside)) /
                                  o_.letterbox.scale);
    };
    const LetterBox& l = o_.letterbox;
    return {{edge(box.x, l.x_pad, o_.width), edge(box.y, l.y_pad, o_.height),
             edge(box.x + box.w, l.x_pad, o_.width), edge(box.y + box.h, l.y_pad, o_.height)},
            box.score,
            box.cls,
            0};
  }

  const Outputs& o_;
  std::vector<Box> boxes_;
};

auto Members(const Detection& d) {
  return std::tuple(d.box.left, d.box.top, d.box.right, d.box.bottom, d.prop, d.flag);
}

void ExpectLikeOracle(const Outputs& outputs) {
  const DetectionList found = outputs.Process();
  const std::vector<Detection> expected = Oracle(outputs).Find();
  ASSERT_EQ(static_cast<size_t>(found.count), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(Members(found.results[i]), Members(expected[i])) << i;
    EXPECT_EQ(found.results[i].cls_id, expected[i].cls_id) << i;
  }
}

/// Few different scores, so that many are equal to each other and to thresholds.
float RandomScore(std::mt19937& random, std::mt19937::result_type share) {
  if (random() % 100 >= share) return 0.03125F * static_cast<float>(random() % 8);
  switch (random() % 20) {
    case 0:
      return kNan;
    case 1:
      return kInfinity;
    case 2:
      return -kInfinity;
    default:
      return 0.0625F * static_cast<float>(random() % 17);
  }
}

float RandomLogit(std::mt19937& random) {
  const auto kind = random() % 4000;
  if (kind == 0) return kNan;
  if (kind == 1) return 200;  // its exponential is infinite
  if (kind == 2) return -kInfinity;
  return std::uniform_real_distribution<float>(-4, 4)(random);
}

Outputs RandomOutputs(std::mt19937& random) {
  const int width = 32 * static_cast<int>(1 + random() % 8);
  const int height = 32 * static_cast<int>(1 + random() % 8);
  std::vector<std::pair<int, int>> grids = {
      {height / 8, width / 8}, {height / 16, width / 16}, {height / 32, width / 32}};
  if (random() % 4 == 0) grids = {{7, 5}, {1, 13}, {3, 3}};
  const int dfl_len = random() % 2 == 0 ? 16 : static_cast<int>(1 + random() % 20);
  Outputs outputs(width, height, static_cast<int>(1 + random() % 9), dfl_len, grids);
  outputs.letterbox = {static_cast<int>(random() % 20), static_cast<int>(random() % 20),
                       0.1F + 0.01F * static_cast<float>(random() % 300)};
  outputs.nms = 0.1F * static_cast<float>(random() % 11);
  for (float& threshold : outputs.thresholds)
    threshold = 0.0625F * static_cast<float>(4 + random() % 14);
  const auto share = random() % 60;
  for (Outputs::Branch& branch : outputs.branches) {
    for (float& score : branch.scores) score = RandomScore(random, share);
    for (float& logit : branch.boxes) logit = RandomLogit(random);
  }
  return outputs;
}

TEST(PostProcessTest, AgreesWithAPlainImplementationOnRandomOutputs) {
  for (unsigned seed = 0; seed < 150; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    ExpectLikeOracle(RandomOutputs(random));
  }
}

TEST(PostProcessTest, MapsABoxThroughPaddingAndScale) {
  Outputs outputs(640, 640, 2, 16, {{80, 80}, {40, 40}, {20, 20}});
  outputs.letterbox = {0, 140, 1.0F / 3};
  outputs.Place(0, 40, 10, 1, 0.75F, {2, 3, 4, 5});   // 68..116, 300..364
  outputs.Place(1, 9, 0, 0, 0.875F, {3, 2, 4, 1});    // -40..72, 120..168, across both paddings
  outputs.Place(2, 19, 19, 0, 0.625F, {0, 0, 9, 9});  // 624..912, past the far edges
  const DetectionList found = outputs.Process();
  ASSERT_EQ(found.count, 3);
  EXPECT_EQ(Members(found.results[0]), Members({{0, 0, 216, 84}, 0.875F}));
  EXPECT_EQ(Members(found.results[1]), Members({{204, 480, 348, 672}, 0.75F}));
  EXPECT_EQ(Members(found.results[2]), Members({{1872, 1452, 1920, 1920}, 0.625F}));
}

TEST(PostProcessTest, DropsWhatOverlapsABetterBoxOfItsClassByMoreThanTheThreshold) {
  const auto count = [](float nms, int other_class) {
    Outputs outputs(32, 32, 2, 16, {{32, 32}});
    outputs.nms = nms;
    outputs.Place(0, 12, 12, 0, 0.875F, {4, 4, 5, 5});           // 10 x 10 pixels, edges included
    outputs.Place(0, 12, 13, other_class, 0.75F, {5, 4, 4, 0});  // the upper half of it
    ExpectLikeOracle(outputs);
    return outputs.Process().count;
  };
  EXPECT_EQ(count(0.5F, 0), 2);  // their overlap is exactly this
  EXPECT_EQ(count(std::nextafter(0.5F, 0.0F), 0), 1);
  EXPECT_EQ(count(0.0F, 1), 2);  // classes do not touch each other
}

TEST(PostProcessTest, ReturnsThe128BestOfMoreInAFixedOrder) {
  Outputs outputs(640, 640, 1, 16, {{80, 80}, {40, 40}, {20, 20}});
  for (size_t branch = 0; branch < 3; ++branch) {
    const Outputs::Branch& b = outputs.branches[branch];
    for (int row = 0; row < b.grid_h; ++row) {
      for (int column = 0; column < b.grid_w; ++column) {
        outputs.Place(branch, row, column, 0, 0.75F, {0, 0, 0, 0});
      }
    }
  }
  outputs.Place(2, 19, 19, 0, 0.875F, {0, 0, 0, 0});
  const DetectionList found = outputs.Process();
  ASSERT_EQ(found.count, 128);
  EXPECT_EQ(found.results[0].box.left, 624);
  EXPECT_EQ(found.results[1].box.left, 4);  // then the first cells of the first branch, row by row
  EXPECT_EQ(found.results[80].box.left, 636);
  EXPECT_EQ(found.results[81].box.top, 12);
  EXPECT_EQ(found.results[127].box.left, 372);
  ExpectLikeOracle(outputs);
}

TEST(PostProcessTest, RefusesOutputsSmallerThanTheirShape) {
  const Outputs outputs(64, 64, 2, 16, {{8, 8}, {4, 4}, {2, 2}});
  const auto code = [&](auto change) {
    auto views = outputs.Views();
    change(views[1]);
    DetectionList found;
    found.count = 99;
    const int result = post_process(views, {64, 64, {}, outputs.thresholds, 0.5F}, found);
    EXPECT_EQ(found.count, 0);
    return result;
  };
  EXPECT_EQ(code([](OutputBranch&) {}), 0);
  EXPECT_EQ(code([](OutputBranch& b) { b.boxes = b.boxes.first(b.boxes.size() - 1); }), -1);
  EXPECT_EQ(code([](OutputBranch& b) { b.scores = b.scores.first(b.scores.size() - 1); }), -1);
  EXPECT_EQ(code([](OutputBranch& b) { b.scores = {}; }), -1);
  EXPECT_EQ(code([](OutputBranch& b) { b.dfl_len = 0; }), -1);
  EXPECT_EQ(code([](OutputBranch& b) { b.dfl_len = 1 << 30; }), -1);
  EXPECT_EQ(code([](OutputBranch& b) { b.grid_h = 0; }), -1);
  EXPECT_EQ(code([](OutputBranch& b) { b.grid_h = 65, b.grid_w = 0; }), -1);
  EXPECT_EQ(code([](OutputBranch& b) { b.grid_h = b.grid_w = 1 << 30; }), -1);
}

}  // namespace
}  // namespace varnel::service
