#pragma once

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/process.h"

namespace varnel::bench {

/// Of the board's camera, milliseconds.
inline constexpr double kFrameTime = 1000.0 / 30;

/// What a daemon has converted, by the bare program.
inline void Convert(const std::string& pixel_format, const std::string& frame,
                    const std::string& picture) {
  Run({"/usr/bin/ffmpeg", "-y", "-v", "error", "-f", "rawvideo", "-pix_fmt", pixel_format, "-s",
       "1920x1080", "-i", frame, "-frames:v", "1", picture});
}

/// The two frame formats of the daemon differ in size.
inline std::string PixelFormat(const std::string& frame) {
  constexpr uintmax_t kPixels = 1920UL * 1080UL;
  const uintmax_t size = std::filesystem::file_size(frame);
  if (size == kPixels * 3 / 2) return "nv12";
  if (size == kPixels * 2) return "yuyv422";
  throw std::runtime_error(frame + " is no frame of 1920x1080");
}

}  // namespace varnel::bench
