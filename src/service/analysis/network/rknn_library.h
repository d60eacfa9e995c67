#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "service/analysis/network/npu_driver.h"
#include "service/analysis/network/rknn_api.h"

namespace varnel::service {

/// The NPU runtime, loaded while the program runs, so that a board without one lives. Constant once
/// constructed.
class RknnLibrary {
 public:
  /// Loads the first of `names` that can be loaded and has all functions.
  /// @param driver what must be there before a function is called; none: nothing
  explicit RknnLibrary(const std::vector<std::string>& names,
                       std::optional<NpuDriver> driver = std::nullopt);

  /// The board's runtime for the board's driver, loaded by the first call and kept.
  static const RknnLibrary& Board();

  /// Null when there is none.
  [[nodiscard]] const RknnApi* Api() const { return handle_ ? &api_ : nullptr; }
  /// Why there is none, for each name that was tried.
  [[nodiscard]] const std::string& Error() const { return error_; }
  /// Why the functions cannot be called now; empty when they can.
  [[nodiscard]] std::string Problem() const;

 private:
  struct Closer {
    void operator()(void* handle) const noexcept;
  };
  bool Load(const std::string& name);

  std::unique_ptr<void, Closer> handle_;
  RknnApi api_;
  const std::optional<NpuDriver> driver_;
  std::string error_;
};

}  // namespace varnel::service
