#include "service/analysis/picture/image_scale.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "service/analysis/picture/image_layout.h"

// The loops over rows have no branches and plain arrays, so that the compiler turns them into
// vector code. A result row is made in three such passes: two source rows are blended into 16 bits
// a value, the neighbours of every sample are gathered from it, and these are blended into the
// result.

namespace varnel::service {
namespace {

/// The part of a picture that is read or written.
struct Plane {
  uint8_t* pixels;
  size_t pitch;
  int32_t width;
  int32_t height;

  uint8_t* Row(int32_t y) const { return pixels + static_cast<size_t>(y) * pitch; }
};

Plane PlaneOf(const ImageBuffer& image, const Rect& rect) {
  const size_t pitch = RowPitch(image);
  const auto left =
      static_cast<size_t>(rect.left) * static_cast<size_t>(BytesPerPixel(image.format));
  return {image.virt_addr + static_cast<size_t>(rect.top) * pitch + left, pitch, Width(rect),
          Height(rect)};
}

/// Where a sample lies between two neighbours; with weight 0 it is the first one alone.
struct Sample {
  int32_t first;
  uint32_t weight;  ///< of the second, in parts of `one`
};

/// The source place of the centre of destination pixel `index`, exact but for the weight's
/// rounding.
Sample SampleOf(int32_t index, int32_t source_length, int32_t length, uint32_t one) {
  const int64_t whole = 2 * int64_t{length};
  const int64_t place = (2 * int64_t{index} + 1) * source_length - length;
  if (place <= 0) {
    return {0, 0};
  }
  const auto first = static_cast<int32_t>(place / whole);
  if (first >= source_length - 1) {
    return {source_length - 1, 0};
  }
  return {first, static_cast<uint32_t>((place % whole * one + length) / whole)};
}

/// Blends two source rows; the result has 8 bits of value and 8 of fraction.
/// @param weight of the lower one, 0 to 256
void BlendRows(const uint8_t* __restrict upper, const uint8_t* __restrict lower, int weight,
               uint16_t* __restrict blended, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    blended[i] = static_cast<uint16_t>(upper[i] * 256 + (lower[i] - upper[i]) * weight);
  }
}

/// Blends the gathered neighbours. Both weights together are one 65536th short of one, so that each
/// fits into 16 bits; the rounding hides it.
void BlendNeighbours(const uint16_t* __restrict first, const uint16_t* __restrict second,
                     const uint16_t* __restrict weights, uint8_t* __restrict row, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const auto first_weight = static_cast<uint16_t>(~weights[i]);
    const auto left = static_cast<uint16_t>(uint32_t{first[i]} * first_weight >> 16U);
    const auto right = static_cast<uint16_t>(uint32_t{second[i]} * weights[i] >> 16U);
    row[i] = static_cast<uint8_t>(static_cast<uint16_t>(left + right + 128) >> 8U);
  }
}

/// The horizontal samples of every row.
template <size_t kBytes>
class RowSampler {
 public:
  RowSampler(int32_t source_width, int32_t width);

  /// Every sample is a source pixel.
  bool IsExact() const { return exact_; }
  /// Copies the first neighbour of every sample, which is all there is to do when they are exact.
  void Copy(const uint8_t* source, uint8_t* row) const { Gather(source, 0, row); }
  /// Samples a blended row.
  void Interpolate(const uint16_t* blended, uint8_t* row);

 private:
  /// A pixel is moved as one machine word. One of three values drags the first value of the next
  /// one along, which is written over by the pixel that comes after it.
  static constexpr size_t kWord = kBytes == 3 ? 4 : kBytes;

  /// Gathers the pixels that lie `step` values behind the first neighbours.
  template <class Value>
  void Gather(const Value* source, size_t step, Value* row) const;

  std::vector<uint32_t> offsets_;  ///< of the first neighbour in the source row, in values
  std::vector<uint16_t> weights_;  ///< of the second neighbour, one for every value
  size_t whole_ = 0;               ///< how many samples can be moved as words inside of the row
  bool exact_ = true;
  std::vector<uint16_t> first_;
  std::vector<uint16_t> second_;
};

template <size_t kBytes>
RowSampler<kBytes>::RowSampler(int32_t source_width, int32_t width)
    : offsets_(static_cast<size_t>(width)),
      weights_(offsets_.size() * kBytes),
      first_(weights_.size()),
      second_(weights_.size()) {
  const size_t row_end = static_cast<size_t>(source_width) * kBytes;
  for (size_t x = 0; x < offsets_.size(); ++x) {
    const Sample sample = SampleOf(static_cast<int32_t>(x), source_width, width, 65536);
    offsets_[x] = static_cast<uint32_t>(sample.first) * kBytes;
    std::fill_n(weights_.begin() + static_cast<std::ptrdiff_t>(x * kBytes), kBytes,
                static_cast<uint16_t>(std::min(sample.weight, 65535U)));
    exact_ &= sample.weight == 0;
    whole_ += offsets_[x] + kBytes + kWord <= row_end ? 1 : 0;
  }
  whole_ = std::min(whole_, offsets_.size() - 1);  // the last word would reach past the result
}

template <size_t kBytes>
template <class Value>
void RowSampler<kBytes>::Gather(const Value* source, size_t step, Value* row) const {
  // Bytes may alias the members, so these are read once here instead of once for every pixel.
  const uint32_t* const offsets = offsets_.data();
  const size_t whole = whole_;
  for (size_t x = 0; x < whole; ++x) {
    std::memcpy(row + x * kBytes, source + offsets[x] + step, kWord * sizeof(Value));
  }
  for (size_t x = whole; x < offsets_.size(); ++x) {
    // The rightmost source pixel has no neighbour, and then no weight for it.
    const size_t behind = weights_[x * kBytes] == 0 ? 0 : step;
    std::memcpy(row + x * kBytes, source + offsets[x] + behind, kBytes * sizeof(Value));
  }
}

template <size_t kBytes>
void RowSampler<kBytes>::Interpolate(const uint16_t* blended, uint8_t* row) {
  Gather(blended, 0, first_.data());
  Gather(blended, kBytes, second_.data());
  BlendNeighbours(first_.data(), second_.data(), weights_.data(), row, weights_.size());
}

template <size_t kBytes>
void Scale(const Plane& source, const Plane& destination) {
  RowSampler<kBytes> sampler(source.width, destination.width);
  std::vector<uint16_t> blended(static_cast<size_t>(source.width) * kBytes);
  for (int32_t y = 0; y < destination.height; ++y) {
    const Sample sample = SampleOf(y, source.height, destination.height, 256);
    if (sample.weight == 0 && sampler.IsExact()) {
      sampler.Copy(source.Row(sample.first), destination.Row(y));
      continue;
    }
    const int32_t lower = sample.first + (sample.weight == 0 ? 0 : 1);
    BlendRows(source.Row(sample.first), source.Row(lower), static_cast<int>(sample.weight),
              blended.data(), blended.size());
    sampler.Interpolate(blended.data(), destination.Row(y));
  }
}

void CopyRows(const Plane& source, const Plane& destination, size_t row_bytes) {
  for (int32_t y = 0; y < source.height; ++y) {
    std::memcpy(destination.Row(y), source.Row(y), row_bytes);
  }
}

}  // namespace

void ScaleBilinear(const ImageBuffer& source, const Rect& from, const ImageBuffer& destination,
                   const Rect& to) {
  const Plane input = PlaneOf(source, from);
  const Plane output = PlaneOf(destination, to);
  const auto bytes = static_cast<size_t>(BytesPerPixel(source.format));
  if (input.width == output.width && input.height == output.height) {
    CopyRows(input, output, static_cast<size_t>(input.width) * bytes);
  } else if (bytes == 1) {
    Scale<1>(input, output);
  } else if (bytes == 3) {
    Scale<3>(input, output);
  } else {
    Scale<4>(input, output);
  }
}

}  // namespace varnel::service
