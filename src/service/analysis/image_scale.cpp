#include "service/analysis/image_scale.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "service/analysis/image_layout.h"

// The inner loops work on whole rows of bytes without branches, so that the compiler turns them
// into vector code. A row is first gathered (both neighbours of every sample, copied together),
// then blended horizontally into 16 bits, then two such rows are blended into the result.

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

Plane PlaneOf(const ImageBuffer& image, const ImageRect& rect) {
  const size_t pitch = RowPitch(image);
  const auto left = static_cast<size_t>(rect.left * BytesPerPixel(image.format));
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

/// Blends the gathered neighbours of every byte: 8 bits of value, 8 bits of fraction.
void BlendNeighbours(const uint8_t* __restrict first, const uint8_t* __restrict second,
                     const uint16_t* __restrict weights, uint16_t* __restrict blended,
                     size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const int difference = second[i] - first[i];
    blended[i] = static_cast<uint16_t>(first[i] * 256 + difference * weights[i]);
  }
}

/// Blends two rows; the weights add up to 65536 and neither is that large.
void BlendRows(const uint16_t* __restrict upper, const uint16_t* __restrict lower,
               uint16_t upper_weight, uint16_t lower_weight, uint8_t* __restrict row,
               size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const auto above = static_cast<uint16_t>(uint32_t{upper[i]} * upper_weight >> 16U);
    const auto below = static_cast<uint16_t>(uint32_t{lower[i]} * lower_weight >> 16U);
    row[i] = static_cast<uint8_t>(static_cast<uint16_t>(above + below + 128) >> 8U);
  }
}

void RoundRow(const uint16_t* __restrict blended, uint8_t* __restrict row, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    row[i] = static_cast<uint8_t>(static_cast<uint16_t>(blended[i] + 128) >> 8U);
  }
}

/// The horizontal samples of every row.
template <size_t kBytes>
class RowSampler {
 public:
  RowSampler(int32_t source_width, int32_t width);

  size_t RowBytes() const { return offsets_.size() * kBytes; }
  /// Every sample is a source pixel.
  bool IsExact() const { return exact_; }
  /// The first neighbours alone, which is all there is to do when the samples are exact.
  void Gather(const uint8_t* source, uint8_t* row) const;
  void Scale(const uint8_t* source, uint16_t* row);

 private:
  /// A pixel is moved as one machine word. One of three bytes drags the first byte of the next one
  /// along, which is written over by the pixel that comes after it.
  static constexpr size_t kWord = kBytes == 3 ? 4 : kBytes;

  std::vector<uint32_t> offsets_;  ///< of the first neighbour in the source row
  std::vector<uint16_t> weights_;  ///< of the second neighbour, one for every byte
  size_t whole_ = 0;               ///< how many samples can be moved as words inside of the row
  bool exact_ = true;
  std::vector<uint8_t> first_;  ///< the first neighbours of a row, with room for the last word
  std::vector<uint8_t> second_;
};

template <size_t kBytes>
RowSampler<kBytes>::RowSampler(int32_t source_width, int32_t width)
    : offsets_(static_cast<size_t>(width)), weights_(offsets_.size() * kBytes) {
  const size_t source_bytes = static_cast<size_t>(source_width) * kBytes;
  for (size_t x = 0; x < offsets_.size(); ++x) {
    const Sample sample = SampleOf(static_cast<int32_t>(x), source_width, width, 256);
    offsets_[x] = static_cast<uint32_t>(sample.first) * kBytes;
    std::fill_n(weights_.begin() + static_cast<std::ptrdiff_t>(x * kBytes), kBytes,
                static_cast<uint16_t>(sample.weight));
    exact_ &= sample.weight == 0;
    whole_ += offsets_[x] + kBytes + kWord <= source_bytes ? 1 : 0;
  }
  whole_ = std::min(whole_, offsets_.size() - 1);  // the last word would reach past the result
}

template <size_t kBytes>
void RowSampler<kBytes>::Gather(const uint8_t* source, uint8_t* row) const {
  for (size_t x = 0; x < whole_; ++x) {
    std::memcpy(row + x * kBytes, source + offsets_[x], kWord);
  }
  for (size_t x = whole_; x < offsets_.size(); ++x) {
    std::memcpy(row + x * kBytes, source + offsets_[x], kBytes);
  }
}

template <size_t kBytes>
void RowSampler<kBytes>::Scale(const uint8_t* source, uint16_t* row) {
  first_.resize(RowBytes());
  second_.resize(RowBytes());
  uint8_t* const first = first_.data();
  uint8_t* const second = second_.data();
  for (size_t x = 0; x < whole_; ++x) {
    std::memcpy(first + x * kBytes, source + offsets_[x], kWord);
    std::memcpy(second + x * kBytes, source + offsets_[x] + kBytes, kWord);
  }
  for (size_t x = whole_; x < offsets_.size(); ++x) {
    // The rightmost source pixel has no neighbour, and then no weight for it.
    const size_t step = weights_[x * kBytes] == 0 ? 0 : kBytes;
    std::memcpy(first + x * kBytes, source + offsets_[x], kBytes);
    std::memcpy(second + x * kBytes, source + offsets_[x] + step, kBytes);
  }
  BlendNeighbours(first, second, weights_.data(), row, RowBytes());
}

/// Horizontally scaled source rows; the two newest are kept, as neighbouring results share them.
template <size_t kBytes>
class ScaledRows {
 public:
  ScaledRows(const Plane& source, int32_t width) : source_(source), sampler_(source.width, width) {
    for (Kept& kept : kept_) kept.row.resize(sampler_.RowBytes());
  }

  const RowSampler<kBytes>& Sampler() const { return sampler_; }
  /// Row `y`, valid until two others were asked for.
  const uint16_t* Row(int32_t y) {
    if (kept_[newest_].y != y) {
      newest_ = 1 - newest_;
    }
    Kept& kept = kept_[newest_];
    if (kept.y != y) {
      sampler_.Scale(source_.Row(y), kept.row.data());
      kept.y = y;
    }
    return kept.row.data();
  }

 private:
  struct Kept {
    int32_t y = -1;
    std::vector<uint16_t> row;
  };

  const Plane source_;
  RowSampler<kBytes> sampler_;
  std::array<Kept, 2> kept_;
  size_t newest_ = 0;
};

template <size_t kBytes>
void ScaleRow(const Plane& source, ScaledRows<kBytes>& rows, const Sample& sample, uint8_t* row) {
  const RowSampler<kBytes>& sampler = rows.Sampler();
  if (sample.weight != 0) {
    // The upper one first: it is more likely to be kept from the row above.
    const uint16_t* const upper = rows.Row(sample.first);
    const uint16_t* const lower = rows.Row(sample.first + 1);
    BlendRows(upper, lower, static_cast<uint16_t>(65536 - sample.weight),
              static_cast<uint16_t>(sample.weight), row, sampler.RowBytes());
  } else if (sampler.IsExact()) {
    sampler.Gather(source.Row(sample.first), row);
  } else {
    RoundRow(rows.Row(sample.first), row, sampler.RowBytes());
  }
}

template <size_t kBytes>
void Scale(const Plane& source, const Plane& destination) {
  ScaledRows<kBytes> rows(source, destination.width);
  for (int32_t y = 0; y < destination.height; ++y) {
    Sample sample = SampleOf(y, source.height, destination.height, 65536);
    sample.weight = std::min(sample.weight, 65535U);
    ScaleRow(source, rows, sample, destination.Row(y));
  }
}

void CopyRows(const Plane& source, const Plane& destination, size_t row_bytes) {
  for (int32_t y = 0; y < source.height; ++y) {
    std::memcpy(destination.Row(y), source.Row(y), row_bytes);
  }
}

}  // namespace

void ScaleBilinear(const ImageBuffer& source, const ImageRect& from, const ImageBuffer& destination,
                   const ImageRect& to) {
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
