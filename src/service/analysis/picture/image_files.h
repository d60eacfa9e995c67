#pragma once

#include <string>

#include "service/analysis/picture/image_buffer.h"

namespace varnel::service {

inline constexpr int kJpegQuality = 90;

/// Reads a .jpg/.jpeg file into packed RGB, or a .data file as raw bytes (its geometry stays 0).
/// A truncated JPEG prints the decoder's warning and is used if half of it is there; CMYK and more
/// than 64 megapixels are refused. Messages go to standard output.
/// @return 0 or negative
[[nodiscard]] int read_image(const std::string& path, Image& image);

/// Writes a packed RGB picture as JPEG, through a temporary beside it that is renamed.
/// @param quality 1 to 100
/// @return 0 or negative
[[nodiscard]] int write_image_jpeg(const std::string& path, int quality, const ImageBuffer& image);

/// Writes by the extension of `path`: .jpg/.jpeg, .png or .data (raw bytes).
/// @return 0 or negative
[[nodiscard]] int write_image(const std::string& path, const ImageBuffer& image);

}  // namespace varnel::service
