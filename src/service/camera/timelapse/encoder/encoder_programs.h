#pragma once

#include <cstdint>
#include <string>

#include "utils/board_places.h"

namespace varnel::service {

/// The programs that make films.
struct EncoderPrograms {
  std::string ffmpeg = utils::board::kFfmpeg;
  std::string ffprobe = "/usr/bin/ffprobe";
  /// Without any work, then a program is killed. Generous: it yields to all else on the board.
  uint32_t still_limit_ms = 120'000;
};

}  // namespace varnel::service
