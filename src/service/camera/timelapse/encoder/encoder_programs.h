#pragma once

#include <cstdint>
#include <string>

namespace varnel::service {

/// The programs that make films.
struct EncoderPrograms {
  std::string ffmpeg = "/usr/bin/ffmpeg";
  std::string ffprobe = "/usr/bin/ffprobe";
  // Generous: the encoder yields to everything else on the board.
  uint32_t frame_limit_ms = 120'000;  ///< for one photo, then it is killed
  uint32_t join_limit_ms = 300'000;   ///< for joining and for checking, besides the frames' share
};

}  // namespace varnel::service
