#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "service/analysis/network/post_process.h"

namespace varnel::service {

/// A cell in which a class was found.
struct Candidate {
  float score = 0;
  int32_t cls_id = 0;
  uint32_t branch = 0;
  uint32_t cell = 0;
};

/// Pixels of the network's input.
struct NetworkBox {
  float x = 0;
  float y = 0;
  float width = 0;
  float height = 0;
  float error = 0;  ///< how far each edge may be from where the formulas put it; 0: it is there
};

/// Left, top, right and bottom in one vector register.
using BoxSides = float __attribute__((vector_size(4 * sizeof(float))));

/// Decodes the boxes of candidates: by the formulas, to the bit, or fast, with a bound for the
/// error.
///
/// Exponentials are most of the work, and a box is needed to the bit only where an edge lies close
/// to the next pixel or an overlap close to the threshold.
class BoxDecoder {
 public:
  /// Both must outlive this.
  BoxDecoder(std::span<const OutputBranch> branches, const PostProcessing& processing)
      : branches_(branches), processing_(processing) {}

  /// Fast where that is possible. Nothing when a number of the box is not finite.
  std::optional<NetworkBox> Decode(const Candidate& candidate);
  std::optional<NetworkBox> DecodeExactly(const Candidate& candidate);

 private:
  void Gather(const Candidate& candidate);
  [[nodiscard]] bool AreModerate() const;
  /// Replaces the values by their exponentials.
  [[nodiscard]] BoxSides Expectations();
  [[nodiscard]] BoxSides FastExpectations() const;
  [[nodiscard]] float Stride(const Candidate& candidate) const;
  [[nodiscard]] NetworkBox Box(const Candidate& candidate, const BoxSides& distances) const;
  [[nodiscard]] float ErrorOfFastBox(const Candidate& candidate) const;

  const std::span<const OutputBranch> branches_;
  const PostProcessing& processing_;
  std::vector<BoxSides> values_;  ///< of the candidate that is being decoded, bin by bin
};

}  // namespace varnel::service
