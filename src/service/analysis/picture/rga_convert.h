#pragma once

#include "service/analysis/picture/conversion.h"
#include "service/analysis/picture/rga_library.h"

namespace varnel::service {

/// Whether the 2D engine accepts the rows of both pictures.
[[nodiscard]] bool SuitsEngine(const Conversion& conversion);

/// Lets the 2D engine do it. A failure is printed.
[[nodiscard]] bool ConvertByEngine(const RgaFunctions& engine, const Conversion& conversion);

}  // namespace varnel::service
