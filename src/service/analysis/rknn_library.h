#pragma once

#include <memory>
#include <string>
#include <vector>

#include "service/analysis/rknn_api.h"

namespace varnel::service {

/// The NPU runtime, loaded while the program runs, so that a board without one lives. Constant once
/// constructed.
class RknnLibrary {
 public:
  /// Loads the first of `names` that can be loaded and has all functions.
  explicit RknnLibrary(const std::vector<std::string>& names);

  /// The board's runtime, loaded by the first call and kept.
  static const RknnLibrary& Board();

  /// Null when there is none.
  [[nodiscard]] const RknnApi* Api() const { return handle_ ? &api_ : nullptr; }
  /// Why there is none, for each name that was tried.
  [[nodiscard]] const std::string& Error() const { return error_; }

 private:
  struct Closer {
    void operator()(void* handle) const noexcept;
  };
  bool Load(const std::string& name);

  std::unique_ptr<void, Closer> handle_;
  RknnApi api_;
  std::string error_;
};

}  // namespace varnel::service
