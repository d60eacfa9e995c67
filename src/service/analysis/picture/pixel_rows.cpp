#include "service/analysis/picture/pixel_rows.h"

#include <algorithm>
#include <cstdlib>

namespace varnel::service {
namespace {

uint8_t Blurred(uint32_t before, uint32_t own, uint32_t after) {
  return static_cast<uint8_t>((before + 2U * own + after + 2U) >> 2U);
}

}  // namespace

uint32_t RowSum(const uint8_t* row, size_t count) {
  uint32_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += row[i];
  return sum;
}

uint32_t RowDifference(const uint8_t* a, const uint8_t* b, size_t count) {
  uint32_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum += static_cast<uint32_t>(std::abs(a[i] - b[i]));
  return sum;
}

void GreyRow(const uint8_t* rgb, uint8_t* grey, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    const uint32_t weighted = 77U * rgb[3 * i] + 150U * rgb[3 * i + 1] + 29U * rgb[3 * i + 2];
    grey[i] = static_cast<uint8_t>(weighted >> 8U);
  }
}

void BlurRow(const uint8_t* row, uint8_t* blurred, size_t count) {
  if (count == 0) return;
  const size_t last = count - 1;
  for (size_t i = 1; i < last; ++i) blurred[i] = Blurred(row[i - 1], row[i], row[i + 1]);
  blurred[0] = Blurred(row[0], row[0], row[std::min<size_t>(1, last)]);
  blurred[last] = Blurred(row[last == 0 ? 0 : last - 1], row[last], row[last]);
}

void BlurRows(const uint8_t* above, const uint8_t* own, const uint8_t* below, uint8_t* blurred,
              size_t count) {
  for (size_t i = 0; i < count; ++i) blurred[i] = Blurred(above[i], own[i], below[i]);
}

}  // namespace varnel::service
