#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "service/analysis/network/rknn_library.h"

namespace varnel::replay {

/// The file that the runtime was loaded from; empty when that is not known.
[[nodiscard]] std::filesystem::path RuntimeFile(const service::RknnLibrary& library);

/// As the runtime tells them.
struct RuntimeVersion {
  std::string runtime;
  std::string driver;
};

/// Nothing when the runtime does not tell. It needs a network to do so, which leaves the NPU again.
/// The runtime may raise the priority of the process; the analysis restores it when it loads one.
[[nodiscard]] std::optional<RuntimeVersion> AskVersion(const service::RknnLibrary& library,
                                                       const std::filesystem::path& network);

}  // namespace varnel::replay
