#include "service/analysis/network/box_decoder.h"

#include <bit>
#include <cmath>

namespace varnel::service {

namespace {

/// Up to here exponentials, their sums and their quotients are normal numbers.
constexpr float kModerate = 60.0F;

/// e to the x with a relative error below 4e-7, for moderate x.
BoxSides FastExp(BoxSides x) {
  constexpr float kLog2E = 1.44269504F;
  // ln 2 in two parts; products of the first with small integers are exact.
  constexpr float kLn2 = 0.693359375F;
  constexpr float kLn2Rest = -2.12194440e-4F;
  // A float this large has no room for fractions: the sum is rounded, its low bits are the integer.
  constexpr float kRounder = 0x1.8p23F;
  const BoxSides rounded = x * kLog2E + kRounder;
  const BoxSides power = rounded - kRounder;
  const BoxSides r = x - power * kLn2 - power * kLn2Rest;
  const BoxSides series =
      1.0F +
      r * (1.0F +
           r * (1.0F / 2 + r * (1.0F / 6 + r * (1.0F / 24 + r * (1.0F / 120 + r * (1.0F / 720))))));
  using Bits = uint32_t __attribute__((vector_size(sizeof(BoxSides))));
  return series * std::bit_cast<BoxSides>((std::bit_cast<Bits>(rounded) + 127U) << 23U);
}

}  // namespace

std::optional<NetworkBox> BoxDecoder::Decode(const Candidate& candidate) {
  Gather(candidate);
  if (!AreModerate()) return DecodeExactly(candidate);
  NetworkBox box = Box(candidate, FastExpectations());
  box.error = ErrorOfFastBox(candidate);
  return box;
}

std::optional<NetworkBox> BoxDecoder::DecodeExactly(const Candidate& candidate) {
  Gather(candidate);
  const NetworkBox box = Box(candidate, Expectations());
  // One number that is not finite makes the sum not finite.
  if (!std::isfinite(box.x + box.y + box.width + box.height)) return std::nullopt;
  return box;
}

/// The values of a cell lie far apart, so they are all asked for before any is worked on.
void BoxDecoder::Gather(const Candidate& candidate) {
  const OutputBranch& branch = branches_[candidate.branch];
  const size_t plane = static_cast<size_t>(branch.grid_h) * static_cast<size_t>(branch.grid_w);
  const auto length = static_cast<size_t>(branch.dfl_len);
  const float* values = branch.boxes.data() + candidate.cell;
  values_.resize(length);
  for (size_t k = 0; k < length; ++k) {
    const float* bin = values + k * plane;
    const size_t side = length * plane;
    values_[k] = BoxSides{bin[0], bin[side], bin[2 * side], bin[3 * side]};
  }
}

bool BoxDecoder::AreModerate() const {
  auto moderate = BoxSides{} == BoxSides{};
  for (const BoxSides& values : values_) {
    moderate &= (values <= kModerate) & (values >= -kModerate);
  }
  return moderate[0] != 0 && moderate[1] != 0 && moderate[2] != 0 && moderate[3] != 0;
}

/// Of the softmax over the values of each side. The four sums grow side by side: each keeps the
/// order of its terms, and none waits for another.
BoxSides BoxDecoder::Expectations() {
  BoxSides sum{};
  for (BoxSides& values : values_) {
    values = BoxSides{std::exp(values[0]), std::exp(values[1]), std::exp(values[2]),
                      std::exp(values[3])};
    sum += values;
  }
  BoxSides distances{};
  float bin = 0;
  for (const BoxSides& values : values_) {
    distances += values / sum * bin;
    ++bin;
  }
  return distances;
}

BoxSides BoxDecoder::FastExpectations() const {
  BoxSides sum{};
  BoxSides weighted{};
  float bin = 0;
  for (const BoxSides& values : values_) {
    const BoxSides exponentials = FastExp(values);
    sum += exponentials;
    weighted += exponentials * bin;
    ++bin;
  }
  return weighted / sum;
}

float BoxDecoder::Stride(const Candidate& candidate) const {
  const int32_t stride = processing_.height / branches_[candidate.branch].grid_h;
  return static_cast<float>(stride);
}

NetworkBox BoxDecoder::Box(const Candidate& candidate, const BoxSides& distances) const {
  const float stride = Stride(candidate);
  const auto grid_width = static_cast<uint32_t>(branches_[candidate.branch].grid_w);
  const auto column = static_cast<float>(candidate.cell % grid_width);
  const uint32_t whole_row = candidate.cell / grid_width;
  const auto row = static_cast<float>(whole_row);
  const float x1 = (column - distances[0] + 0.5F) * stride;
  const float y1 = (row - distances[1] + 0.5F) * stride;
  const float x2 = (column + distances[2] + 0.5F) * stride;
  const float y2 = (row + distances[3] + 0.5F) * stride;
  return {x1, y1, x2 - x1, y2 - y1, 0};
}

/// Both ways of decoding round each sum of n terms by at most n half last places, and the
/// exponentials differ by 5e-7; a distance has at most n cells. The last part is the rounding of
/// coordinates.
float BoxDecoder::ErrorOfFastBox(const Candidate& candidate) const {
  const auto n = static_cast<float>(branches_[candidate.branch].dfl_len);
  const float distance = n * (2e-6F + n * 3e-7F) * Stride(candidate);
  return distance + 5e-7F * static_cast<float>(processing_.width + processing_.height);
}

}  // namespace varnel::service
