#include "service/analysis/network/post_process.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <vector>

#include "service/analysis/network/box_suppression.h"

namespace varnel::service {

namespace {

size_t Cells(const OutputBranch& branch) {
  return static_cast<size_t>(branch.grid_h) * static_cast<size_t>(branch.grid_w);
}

bool IsWhole(const OutputBranch& branch, const PostProcessing& processing) {
  if (branch.grid_h <= 0 || branch.grid_w <= 0 || branch.dfl_len <= 0) return false;
  // Divisions, because a product of hostile sizes could wrap.
  const size_t cells = Cells(branch);
  return branch.grid_h <= processing.height &&
         branch.boxes.size() / cells / 4 >= static_cast<size_t>(branch.dfl_len) &&
         branch.scores.size() / cells >= processing.thresholds.size();
}

/// Finds the cells with a score above a threshold. Most pictures hold next to nothing, so the class
/// planes are compared in blocks along the memory, and only a block that holds something is looked
/// at more closely.
class Scan {
 public:
  Scan(std::span<const float> thresholds, std::vector<Candidate>& candidates)
      : thresholds_(thresholds), candidates_(candidates) {}

  void Branch(const OutputBranch& branch, uint32_t number) {
    const size_t cells = Cells(branch);
    for (size_t start = 0; start < cells; start += kBlock) {
      const size_t count = std::min(kBlock, cells - start);
      const float* scores = branch.scores.data() + start;
      if (Holds(scores, cells, count)) Pick(scores, cells, count, start, number);
    }
  }

 private:
  static constexpr size_t kBlock = 64;
  static constexpr float kNone = -std::numeric_limits<float>::infinity();

  static bool AnyAbove(const float* scores, size_t count, float threshold) {
    int above = 0;
    for (size_t i = 0; i < count; ++i) above |= scores[i] > threshold ? 1 : 0;
    return above != 0;
  }

  [[nodiscard]] bool Holds(const float* scores, size_t plane, size_t count) const {
    for (size_t cls = 0; cls < thresholds_.size(); ++cls) {
      const float* values = scores + cls * plane;
      const float threshold = thresholds_[cls];
      // A known length makes the loop a few vector instructions.
      if (count == kBlock ? AnyAbove(values, kBlock, threshold)
                          : AnyAbove(values, count, threshold)) {
        return true;
      }
    }
    return false;
  }

  /// Best class of each cell. Whatever exceeds its own threshold exceeds the smallest one too.
  void Pick(const float* scores, size_t plane, size_t count, size_t start, uint32_t number) {
    std::array<float, kBlock> best;
    std::array<int32_t, kBlock> classes;
    best.fill(kNone);
    classes.fill(-1);
    for (size_t cls = 0; cls < thresholds_.size(); ++cls) {
      Merge(scores + cls * plane, count, static_cast<int32_t>(cls), best, classes);
    }
    for (size_t i = 0; i < count; ++i) {
      if (classes[i] < 0) continue;
      candidates_.push_back({best[i], classes[i], number, static_cast<uint32_t>(start + i)});
    }
  }

  void Merge(const float* scores, size_t count, int32_t cls, std::array<float, kBlock>& best,
             std::array<int32_t, kBlock>& classes) const {
    const float threshold = thresholds_[static_cast<size_t>(cls)];
    for (size_t i = 0; i < count; ++i) {
      const float score = scores[i];
      // Not the short-circuit operators: branches would keep the loop from being vectorised.
      const bool better =
          (score > threshold) & (score > best[i]) & (score <= std::numeric_limits<float>::max());
      best[i] = better ? score : best[i];
      classes[i] = better ? cls : classes[i];
    }
  }

  const std::span<const float> thresholds_;
  std::vector<Candidate>& candidates_;
};

/// Maps boxes into the picture.
class Mapping {
 public:
  Mapping(const PostProcessing& processing, BoxDecoder& decoder)
      : processing_(processing), decoder_(decoder) {}

  Rect Map(const Candidate& candidate, const NetworkBox& box) const {
    const NetworkBox& sure = IsSure(box) ? box : *decoder_.DecodeExactly(candidate);
    return {X(sure.x), Y(sure.y), X(sure.x + sure.width), Y(sure.y + sure.height)};
  }

 private:
  /// Whether no edge could be in another pixel.
  static bool IsSure(const NetworkBox& box) {
    bool sure = true;
    for (const float edge : {box.x, box.y, box.x + box.width, box.y + box.height}) {
      sure &= std::floor(edge - box.error) == std::floor(edge + box.error);
    }
    return sure;
  }

  [[nodiscard]] int32_t X(float value) const {
    return Edge(value, processing_.letterbox.x_pad, processing_.width);
  }
  [[nodiscard]] int32_t Y(float value) const {
    return Edge(value, processing_.letterbox.y_pad, processing_.height);
  }
  [[nodiscard]] int32_t Edge(float value, int32_t padding, int32_t limit) const {
    const float inside =
        std::clamp(value - static_cast<float>(padding), 0.0F, static_cast<float>(limit));
    const float scaled =
        static_cast<float>(static_cast<int32_t>(inside)) / processing_.letterbox.scale;
    constexpr auto kLargest = static_cast<float>(std::numeric_limits<int32_t>::max());
    return scaled >= 0 && scaled < kLargest ? static_cast<int32_t>(scaled) : 0;
  }

  const PostProcessing& processing_;
  BoxDecoder& decoder_;
};

struct IsBetter {
  bool operator()(const Candidate& a, const Candidate& b) const {
    if (a.score != b.score) return a.score > b.score;
    return a.branch != b.branch ? a.branch < b.branch : a.cell < b.cell;
  }
};

}  // namespace

int post_process(std::span<const OutputBranch> branches, const PostProcessing& processing,
                 DetectionList& found) {
  found = {};
  std::vector<Candidate> candidates;
  Scan scan(processing.thresholds, candidates);
  for (uint32_t i = 0; i < branches.size(); ++i) {
    if (!IsWhole(branches[i], processing)) return -1;
    scan.Branch(branches[i], i);
  }
  std::sort(candidates.begin(), candidates.end(), IsBetter());
  // Only better boxes decide over a box, so the first that stay are known without looking further.
  BoxDecoder decoder(branches, processing);
  BoxSuppression suppression(processing.nms_threshold, decoder);
  for (const Candidate& candidate : candidates) {
    if (suppression.Full()) break;
    suppression.Offer(candidate);
  }
  const Mapping mapping(processing, decoder);
  for (size_t i = 0; i < suppression.Count(); ++i) {
    const Candidate& candidate = suppression.CandidateAt(i);
    found.results[i] = {mapping.Map(candidate, suppression.BoxAt(i)), candidate.score,
                        candidate.cls_id, 0};
  }
  found.count = static_cast<int32_t>(suppression.Count());
  return 0;
}

}  // namespace varnel::service
