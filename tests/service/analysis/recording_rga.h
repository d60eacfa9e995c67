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
  struct Fill {
    Buffer target;
    Rect rect;
    int colour = 0;
    int sync = 0;
  } fill;

  int processes = 0;
  struct Process {
    Buffer source;
    Buffer destination;
    Buffer pattern;
    Rect source_rect;
    Rect destination_rect;
    Rect pattern_rect;
    int usage = 0;
  } process;
};

/// What the library writes behind a description's known part.
inline constexpr unsigned char kRgaPrivateByte = 0x5a;

}  // namespace varnel::test
