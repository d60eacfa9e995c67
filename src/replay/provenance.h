#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "replay/command_line.h"
#include "replay/picture_judge.h"
#include "replay/replay.h"
#include "service/analysis/network/rknn_library.h"

namespace varnel::service {
class RknnLibrary;
}  // namespace varnel::service

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

/// The beginning of report.json: what was judged, by what, when. Reads networks, runtime and
/// program once; throws when one of them cannot be read.
/// @param judge without a problem
[[nodiscard]] nlohmann::ordered_json HeadJson(const Options& options, const Input& input,
                                              const PictureJudge& judge,
                                              const service::RknnLibrary& library);

}  // namespace varnel::replay
