#pragma once

#include <cstddef>
#include <cstdint>

namespace varnel::service {

// The loops over rows of pixels that decide how long a look at a whole picture takes. `count` is a
// number of bytes, at most what fits into a row of 64 megapixels.

/// Sum of all bytes.
[[nodiscard]] uint32_t RowSum(const uint8_t* row, size_t count);

/// Sum of |a - b|.
[[nodiscard]] uint32_t RowDifference(const uint8_t* a, const uint8_t* b, size_t count);

/// Grey levels (77 R + 150 G + 29 B) / 256 of `count` packed RGB pixels.
void GreyRow(const uint8_t* rgb, uint8_t* grey, size_t count);

/// (1 2 1) / 4 across; the first and the last pixel are repeated beyond the ends.
void BlurRow(const uint8_t* row, uint8_t* blurred, size_t count);

/// (1 2 1) / 4 of three rows; `own` may be the destination.
void BlurRows(const uint8_t* above, const uint8_t* own, const uint8_t* below, uint8_t* blurred,
              size_t count);

}  // namespace varnel::service
