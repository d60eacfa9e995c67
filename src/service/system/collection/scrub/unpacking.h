#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "service/system/collection/scrub/scrubbed_file.h"

namespace varnel::service {

struct UnpackSetup {
  std::string gzip;
  uint64_t max_bytes = 0;
  std::function<bool()> stopped;
};

/// What a compressed file holds goes into the copy. Empty, or what is wrong with it; then the copy
/// has what came until then.
[[nodiscard]] std::string Unpack(const UnpackSetup& setup, int packed, ScrubbedFile& copy);

/// The same for the bytes of an open file from `first` on, up to `end` at most.
[[nodiscard]] std::string ReadInto(ScrubbedFile& copy, int source, uint64_t first, uint64_t end,
                                   const std::function<bool()>& stopped);

}  // namespace varnel::service
