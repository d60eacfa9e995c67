#pragma once

#include "service/analysis/picture/rga_abi.h"

namespace varnel::test {

/// What the stand-in for the 2D engine's library was asked for, and what it answers.
struct RgaRecording {
  using Buffer = service::rga::Buffer;
  using Rect = service::rga::Rect;

  service::rga::Status fill_status = service::rga::kStatusSuccess;
  service::rga::Status process_status = service::rga::kStatusSuccess;

  int fills = 0;
  Buffer fill_target;
  Rect fill_rect;
  int colour = 0;
  int fill_sync = 0;

  int processes = 0;
  Buffer source;
  Buffer destination;
  Buffer pattern;
  Rect source_rect;
  Rect destination_rect;
  Rect pattern_rect;
  int usage = 0;
};

/// What the library writes behind a description's known part.
inline constexpr unsigned char kRgaPrivateByte = 0x5a;

}  // namespace varnel::test
