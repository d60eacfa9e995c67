#pragma once

#include <cstdint>

#include "virtual_board/chart/image.h"

namespace varnel::board {

/// A test chart for cameras: a sky of gradients, eight plain colour patches, a grey ramp, and the
/// frame number in large digits above a bar that moves on with it. Areas are smooth, so that it
/// survives JPEG nearly unchanged.
Image DrawChart(uint32_t frame_number);

}  // namespace varnel::board
