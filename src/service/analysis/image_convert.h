#pragma once

#include <cstdint>
#include <optional>

#include "service/analysis/detection.h"
#include "service/analysis/image_buffer.h"

namespace varnel::service {

class RgaLibrary;

/// Copies and scales a rectangle of `source` into a rectangle of `destination`: by the 2D engine
/// when both widths are multiples of 16 and the engine is there, by the processor otherwise.
/// @param source_crop, destination_crop the whole picture when empty
/// @param background grey that the destination is filled with first; nothing is filled when empty
/// @return 0, or negative with a message on standard output
[[nodiscard]] int convert_image(const ImageBuffer& source, const ImageBuffer& destination,
                                const std::optional<ImageRect>& source_crop,
                                const std::optional<ImageRect>& destination_crop,
                                std::optional<uint8_t> background);

/// The same with a 2D engine of the caller's choice instead of the board's.
[[nodiscard]] int convert_image(const RgaLibrary& engine, const ImageBuffer& source,
                                const ImageBuffer& destination,
                                const std::optional<ImageRect>& source_crop,
                                const std::optional<ImageRect>& destination_crop,
                                std::optional<uint8_t> background);

/// Copies a box of `source` into a new picture of the box's size.
/// @return 0 or negative (box outside of the picture, empty box)
[[nodiscard]] int crop_image(const ImageBuffer& source, const DetectionBox& box, Image& crop);

}  // namespace varnel::service
