#pragma once

#include <filesystem>
#include <string>

namespace varnel::service {

/// Where the NPU's driver shows itself, whichever kind it is; the defaults are the board's. Some
/// versions of the runtime end the process when there is no driver, so it is looked for first.
struct NpuDriver {
  std::filesystem::path debug = "/sys/kernel/debug/rknpu";
  std::filesystem::path render_nodes = "/sys/class/drm";
  std::filesystem::path node = "/dev/rknpu";

  /// Whether it is there now.
  [[nodiscard]] bool IsThere() const;
  /// The places, for people.
  [[nodiscard]] std::string Places() const;
};

}  // namespace varnel::service
