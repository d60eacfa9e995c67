#pragma once

#include <cassert>
#include <optional>
#include <type_traits>
#include <utility>

namespace varnel::utils {

/// A value, or why there is none: a status, or a text for people.
template <class T, class Problem>
class [[nodiscard]] Result {
  static_assert(!std::is_same_v<T, Problem>);

 public:
  Result(T value) : value_(std::in_place, std::move(value)) {}
  Result(Problem problem) : problem_(std::move(problem)) {}

  explicit operator bool() const { return value_.has_value(); }
  // Only of one that has a value.
  T& operator*() {
    assert(value_);
    return *value_;
  }
  const T& operator*() const {
    assert(value_);
    return *value_;
  }
  T* operator->() { return &**this; }
  const T* operator->() const { return &**this; }

  /// Only of one that has no value.
  const Problem& Why() const {
    assert(!value_);
    return problem_;
  }

 private:
  std::optional<T> value_;
  Problem problem_{};
};

}  // namespace varnel::utils
