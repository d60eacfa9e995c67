#pragma once

#include <algorithm>
#include <cstdint>

namespace varnel::service {

/// A rectangle in pixels: right and bottom lie just outside of it.
template <class Number>
struct BasicRect {
  Number left = 0;
  Number top = 0;
  Number right = 0;
  Number bottom = 0;
};

using Rect = BasicRect<int32_t>;

template <class Number>
[[nodiscard]] constexpr Number Width(const BasicRect<Number>& rect) {
  return rect.right - rect.left;
}

template <class Number>
[[nodiscard]] constexpr Number Height(const BasicRect<Number>& rect) {
  return rect.bottom - rect.top;
}

/// 0 for a rectangle whose edges have changed places.
template <class Number>
[[nodiscard]] constexpr double Area(const BasicRect<Number>& rect) {
  return std::max(double{1} * rect.right - rect.left, 0.0) *
         std::max(double{1} * rect.bottom - rect.top, 0.0);
}

/// What two rectangles share; without area when they share nothing.
template <class Number>
[[nodiscard]] constexpr BasicRect<Number> Intersection(const BasicRect<Number>& a,
                                                       const BasicRect<Number>& b) {
  return {std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right),
          std::min(a.bottom, b.bottom)};
}

}  // namespace varnel::service
