#pragma once

#include <span>
#include <string>
#include <vector>

#include "service/analysis/picture/rga_abi.h"

namespace varnel::service {

/// The functions of the 2D engine's library.
struct RgaFunctions {
  rga::ImProcess improcess = nullptr;
  rga::ImFill imfill = nullptr;
  rga::WrapVirtualAddress wrap_virtual_address = nullptr;
  rga::WrapFd wrap_fd = nullptr;
  rga::ErrorText error_text = nullptr;
};

/// The 2D engine's library, loaded at run time: a board without it, or with one that is too old,
/// converts pictures on the processor.
class RgaLibrary {
 public:
  /// Takes the first of these libraries that has every function.
  /// @param names as the loader wants them: a file name to be searched, or a path
  explicit RgaLibrary(std::span<const std::string> names);

  [[nodiscard]] bool IsLoaded() const { return functions_.improcess != nullptr; }
  /// Only of a loaded library.
  [[nodiscard]] const RgaFunctions& Functions() const { return functions_; }

 private:
  RgaFunctions functions_;
};

/// The board's own library, loaded at its first use. Any thread.
[[nodiscard]] const RgaLibrary& BoardRgaLibrary();

}  // namespace varnel::service
