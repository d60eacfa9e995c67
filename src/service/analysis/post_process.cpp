#include "service/analysis/post_process.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

namespace varnel::service {

namespace {

/// A cell in which a class was found.
struct Candidate {
  float score = 0;
  int32_t cls_id = 0;
  uint32_t branch = 0;
  uint32_t cell = 0;
};

struct NetworkBox {
  float x = 0;
  float y = 0;
  float width = 0;
  float height = 0;
};

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

/// Decodes the boxes of candidates.
class BoxDecoder {
 public:
  BoxDecoder(std::span<const OutputBranch> branches, int32_t network_height)
      : branches_(branches), network_height_(network_height) {}

  /// Nothing when a number of the box is not finite.
  std::optional<NetworkBox> Decode(const Candidate& candidate) {
    const OutputBranch& branch = branches_[candidate.branch];
    const auto stride = static_cast<float>(network_height_ / branch.grid_h);
    const auto width = static_cast<uint32_t>(branch.grid_w);
    const auto column = static_cast<float>(candidate.cell % width);
    const auto row = static_cast<float>(candidate.cell / width);
    const Sides distance = Distances(branch, candidate.cell);
    const float x1 = (column - distance[0] + 0.5F) * stride;
    const float y1 = (row - distance[1] + 0.5F) * stride;
    const float x2 = (column + distance[2] + 0.5F) * stride;
    const float y2 = (row + distance[3] + 0.5F) * stride;
    const NetworkBox box{x1, y1, x2 - x1, y2 - y1};
    // One number that is not finite makes the sum not finite.
    if (!std::isfinite(x1 + y1 + x2 + y2)) return std::nullopt;
    return box;
  }

 private:
  /// Left, top, right and bottom in one vector register.
  using Sides = float __attribute__((vector_size(4 * sizeof(float))));

  /// Expectations of the softmax over the values of each side. The four sums grow side by side:
  /// each keeps the order of its terms, and none waits for another.
  Sides Distances(const OutputBranch& branch, size_t cell) {
    Gather(branch, cell);
    Sides sum{};
    for (Sides& values : values_) {
      values =
          Sides{std::exp(values[0]), std::exp(values[1]), std::exp(values[2]), std::exp(values[3])};
      sum += values;
    }
    Sides distance{};
    float bin = 0;
    for (const Sides& values : values_) {
      distance += values / sum * bin;
      ++bin;
    }
    return distance;
  }

  /// The values of a cell lie far apart, so they are all asked for before any is worked on.
  void Gather(const OutputBranch& branch, size_t cell) {
    const size_t plane = Cells(branch);
    const auto length = static_cast<size_t>(branch.dfl_len);
    values_.resize(length);
    for (size_t side = 0; side < 4; ++side) {
      const float* logits = branch.boxes.data() + side * length * plane + cell;
      for (size_t k = 0; k < length; ++k) values_[k][side] = logits[k * plane];
    }
  }

  const std::span<const OutputBranch> branches_;
  const int32_t network_height_;
  std::vector<Sides> values_;
};

/// The boxes that stay. They lie in columns, so that a new box is compared with all of them at
/// once.
class Survivors {
 public:
  explicit Survivors(float nms_threshold) : nms_threshold_(nms_threshold) {}

  [[nodiscard]] bool Full() const { return count_ == kMaxDetections; }
  [[nodiscard]] size_t Count() const { return count_; }

  /// True when a better box of the class overlaps this one by more than the threshold.
  [[nodiscard]] bool Suppress(const NetworkBox& box, int32_t cls_id) const {
    const float right = box.x + box.width;
    const float bottom = box.y + box.height;
    const float area = (box.width + 1.0F) * (box.height + 1.0F);
    int32_t suppressed = 0;
    for (size_t i = 0; i < count_; ++i) {
      const float width = Positive(Least(right, right_[i]) - Most(box.x, left_[i]) + 1.0F);
      const float height = Positive(Least(bottom, bottom_[i]) - Most(box.y, top_[i]) + 1.0F);
      const float overlap = width * height;
      const float united = area_[i] + area - overlap;
      const float ratio = overlap / united;
      const float iou = united <= 0.0F ? 0.0F : ratio;
      const int32_t over = iou > nms_threshold_ ? 1 : 0;
      suppressed |= class_[i] == cls_id ? over : 0;
    }
    return suppressed != 0;
  }

  void Add(const NetworkBox& box, int32_t cls_id) {
    left_[count_] = box.x;
    top_[count_] = box.y;
    right_[count_] = box.x + box.width;
    bottom_[count_] = box.y + box.height;
    area_[count_] = (box.width + 1.0F) * (box.height + 1.0F);
    class_[count_] = cls_id;
    ++count_;
  }

 private:
  using Column = std::array<float, kMaxDetections>;

  // By value: the standard ones deal in references, which keep the loop from being vectorised.
  static float Least(float a, float b) { return b < a ? b : a; }
  static float Most(float a, float b) { return a < b ? b : a; }
  static float Positive(float value) { return 0.0F < value ? value : 0.0F; }

  const float nms_threshold_;
  size_t count_ = 0;
  Column left_{};
  Column top_{};
  Column right_{};
  Column bottom_{};
  Column area_{};
  std::array<int32_t, kMaxDetections> class_{};
};

/// A coordinate of the network's input as one of the picture.
int32_t ToPicture(float coordinate, int32_t padding, int32_t limit, float scale) {
  const float inside =
      std::clamp(coordinate - static_cast<float>(padding), 0.0F, static_cast<float>(limit));
  const float scaled = static_cast<float>(static_cast<int32_t>(inside)) / scale;
  constexpr auto kLargest = static_cast<float>(std::numeric_limits<int32_t>::max());
  return scaled >= 0 && scaled < kLargest ? static_cast<int32_t>(scaled) : 0;
}

DetectionBox ToPicture(const NetworkBox& box, const PostProcessing& processing) {
  const LetterBox& letterbox = processing.letterbox;
  const auto x = [&](float value) {
    return ToPicture(value, letterbox.x_pad, processing.width, letterbox.scale);
  };
  const auto y = [&](float value) {
    return ToPicture(value, letterbox.y_pad, processing.height, letterbox.scale);
  };
  return {x(box.x), y(box.y), x(box.x + box.width), y(box.y + box.height)};
}

bool IsBetter(const Candidate& a, const Candidate& b) {
  if (a.score != b.score) return a.score > b.score;
  return a.branch != b.branch ? a.branch < b.branch : a.cell < b.cell;
}

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
  std::sort(candidates.begin(), candidates.end(), IsBetter);
  // Only better boxes decide over a box, so the first that stay are known without looking further.
  BoxDecoder decoder(branches, processing.height);
  Survivors survivors(processing.nms_threshold);
  for (const Candidate& candidate : candidates) {
    if (survivors.Full()) break;
    const auto box = decoder.Decode(candidate);
    if (!box || survivors.Suppress(*box, candidate.cls_id)) continue;
    found.results[survivors.Count()] = {ToPicture(*box, processing), candidate.score,
                                        candidate.cls_id, 0};
    survivors.Add(*box, candidate.cls_id);
  }
  found.count = static_cast<int32_t>(survivors.Count());
  return 0;
}

}  // namespace varnel::service
