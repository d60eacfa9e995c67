// Boxes out of a network's outputs against the plain loops over rows, columns and classes, taking
// turns: 640x640 pixels, four classes, three branches. Options: --runs.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <tuple>

#include "service/analysis/network/post_process.h"
#include "support/report.h"

namespace {

using namespace varnel::bench;
using namespace varnel::service;

constexpr int kSide = 640;
constexpr int kClasses = 4;
constexpr int kBins = 16;
constexpr int kCallsPerSample = 20;
constexpr float kThreshold = 0.83F;

struct Outputs {
  std::vector<float> boxes;
  std::vector<float> scores;
  int grid = 0;
};

/// What a network says about a picture with so many hits: apart, or neighbours on few objects.
std::vector<Outputs> MakeOutputs(int hits, int neighbours) {
  std::mt19937 random(static_cast<uint32_t>(hits) + 1);
  std::uniform_real_distribution<float> noise(0, 0.3F);
  std::uniform_real_distribution<float> logit(-3, 3);
  std::vector<Outputs> branches;
  for (const int grid : {80, 40, 20}) {
    Outputs branch{std::vector<float>(static_cast<size_t>(grid * grid * 4 * kBins)),
                   std::vector<float>(static_cast<size_t>(grid * grid * kClasses)), grid};
    for (float& value : branch.boxes) value = logit(random);
    for (float& value : branch.scores) value = noise(random);
    branches.push_back(std::move(branch));
  }
  std::uniform_real_distribution<float> score(kThreshold + 0.01F, 0.99F);
  for (int i = 0; i < hits; i += neighbours) {
    Outputs& branch = branches[random() % 3];
    const size_t first = random() % (branch.scores.size() - static_cast<size_t>(neighbours));
    for (int k = 0; k < neighbours; ++k)
      branch.scores[first + static_cast<size_t>(k)] = score(random);
  }
  return branches;
}

/// The formulas as they are written down.
class Plain {
 public:
  Plain(const std::vector<Outputs>& branches, const PostProcessing& processing)
      : branches_(branches), p_(processing) {}

  void Process(DetectionList& found) {
    found = {};
    boxes_.clear();
    scores_.clear();
    classes_.clear();
    for (const Outputs& branch : branches_) Scan(branch);
    order_.resize(scores_.size());
    std::iota(order_.begin(), order_.end(), 0);
    std::stable_sort(order_.begin(), order_.end(),
                     [&](int a, int b) { return scores_[Index(a)] > scores_[Index(b)]; });
    for (const int cls : std::set<int>(classes_.begin(), classes_.end())) Suppress(cls);
    for (const int candidate : order_) {
      if (candidate >= 0 && found.count < kMaxDetections) Write(Index(candidate), found);
    }
  }

 private:
  struct Box {
    float x, y, w, h;
  };

  static size_t Index(int i) { return static_cast<size_t>(i); }

  void Scan(const Outputs& branch) {
    const int plane = branch.grid * branch.grid;
    for (int i = 0; i < branch.grid; ++i) {
      for (int j = 0; j < branch.grid; ++j) {
        int offset = i * branch.grid + j;
        float best = 0;
        int best_class = -1;
        for (int c = 0; c < kClasses; ++c) {
          const float score = branch.scores[Index(offset)];
          if (score > p_.thresholds[Index(c)] && score > best) {
            best = score;
            best_class = c;
          }
          offset += plane;
        }
        if (best > kThreshold) Decode(branch, i, j, best, best_class);
      }
    }
  }

  void Decode(const Outputs& branch, int i, int j, float score, int cls) {
    const int plane = branch.grid * branch.grid;
    float d[4];
    for (int side = 0; side < 4; ++side) {
      float exponentials[kBins];
      float sum = 0;
      float expectation = 0;
      for (int k = 0; k < kBins; ++k) {
        const int at = (side * kBins + k) * plane + i * branch.grid + j;
        exponentials[k] = std::exp(branch.boxes[Index(at)]);
        sum += exponentials[k];
      }
      for (int k = 0; k < kBins; ++k) expectation += exponentials[k] / sum * static_cast<float>(k);
      d[side] = expectation;
    }
    const int whole_stride = kSide / branch.grid;
    const auto stride = static_cast<float>(whole_stride);
    const float x1 = (static_cast<float>(j) - d[0] + 0.5F) * stride;
    const float y1 = (static_cast<float>(i) - d[1] + 0.5F) * stride;
    const float x2 = (static_cast<float>(j) + d[2] + 0.5F) * stride;
    const float y2 = (static_cast<float>(i) + d[3] + 0.5F) * stride;
    boxes_.push_back({x1, y1, x2 - x1, y2 - y1});
    scores_.push_back(score);
    classes_.push_back(cls);
  }

  void Suppress(int cls) {
    for (size_t i = 0; i < order_.size(); ++i) {
      if (order_[i] < 0 || classes_[Index(order_[i])] != cls) continue;
      for (size_t j = i + 1; j < order_.size(); ++j) {
        if (order_[j] < 0 || classes_[Index(order_[j])] != cls) continue;
        if (Iou(boxes_[Index(order_[i])], boxes_[Index(order_[j])]) > p_.nms_threshold) {
          order_[j] = -1;
        }
      }
    }
  }

  static float Iou(const Box& a, const Box& b) {
    const float w = std::max(0.0F, std::min(a.x + a.w, b.x + b.w) - std::max(a.x, b.x) + 1.0F);
    const float h = std::max(0.0F, std::min(a.y + a.h, b.y + b.h) - std::max(a.y, b.y) + 1.0F);
    const float united = (a.w + 1.0F) * (a.h + 1.0F) + (b.w + 1.0F) * (b.h + 1.0F) - w * h;
    return united <= 0 ? 0 : w * h / united;
  }

  [[nodiscard]] int32_t Edge(float value, int pad) const {
    const float inside = std::clamp(value - static_cast<float>(pad), 0.0F, float{kSide});
    return static_cast<int32_t>(static_cast<float>(static_cast<int>(inside)) / p_.letterbox.scale);
  }

  void Write(size_t i, DetectionList& found) const {
    const Box& box = boxes_[i];
    const LetterBox& l = p_.letterbox;
    found.results[Index(found.count++)] = {
        {Edge(box.x, l.x_pad), Edge(box.y, l.y_pad), Edge(box.x + box.w, l.x_pad),
         Edge(box.y + box.h, l.y_pad)},
        scores_[i],
        classes_[i],
        0};
  }

  const std::vector<Outputs>& branches_;
  const PostProcessing& p_;
  std::vector<Box> boxes_;
  std::vector<float> scores_;
  std::vector<int> classes_;
  std::vector<int> order_;
};

auto Numbers(const Detection& d) {
  return std::tuple(d.box.left, d.box.top, d.box.right, d.box.bottom, d.prop, d.cls_id, d.flag);
}

bool Same(const DetectionList& a, const DetectionList& b) {
  const auto same = [](const Detection& x, const Detection& y) { return Numbers(x) == Numbers(y); };
  return a.count == b.count &&
         std::equal(a.results.begin(), a.results.end(), b.results.begin(), same);
}

double Microseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kCallsPerSample; ++i) work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
             .count() /
         kCallsPerSample;
}

void Compare(int hits, int neighbours, double limit, int runs, Report& report) {
  const std::vector<Outputs> outputs = MakeOutputs(hits, neighbours);
  std::vector<OutputBranch> branches;
  branches.reserve(outputs.size());
  for (const Outputs& o : outputs) branches.push_back({o.boxes, o.scores, kBins, o.grid, o.grid});
  const std::vector<float> thresholds(kClasses, kThreshold);
  const PostProcessing processing{kSide, kSide, {0, 140, 1.0F / 3}, thresholds, 0.5F};
  Plain plain(outputs, processing);
  DetectionList ours;
  DetectionList theirs;
  std::vector<double> our_times;
  std::vector<double> their_times;
  for (int run = 0; run < runs; ++run) {
    our_times.push_back(Microseconds([&] {
      if (post_process(branches, processing, ours) != 0) throw std::runtime_error("post_process");
    }));
    their_times.push_back(Microseconds([&] { plain.Process(theirs); }));
  }
  if (!Same(ours, theirs)) throw std::runtime_error("boxes differ");
  const double time = Percentile(our_times, 0.5);
  const std::string name = fmt::format("post-processing, {} hits, {} boxes", hits, ours.count);
  report.Figure(name + ", median", time, "us");
  report.AtLeast(name + ", times as fast as plain loops", Percentile(their_times, 0.5) / time,
                 limit);
}

int Measure(const Options& options) {
  const int runs = options.Number("runs", 101);
  Report report;
  for (const int hits : {0, 1, 3, 10}) Compare(hits, 1, 2.5, runs, report);
  Compare(200, 1, 2.0, runs, report);
  Compare(200, 10, 2.0, runs, report);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
