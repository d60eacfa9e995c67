#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace varnel::board {

/// An RGB picture, eight bits a channel.
struct Image {
  uint32_t width = 0;
  uint32_t height = 0;
  std::vector<uint8_t> rgb;

  [[nodiscard]] const uint8_t* Pixel(uint32_t x, uint32_t y) const {
    return &rgb[(size_t{y} * width + x) * 3];
  }
};

/// Binary PPM ("P6", 255), the form that ffmpeg writes and reads without loss.
std::string ToPpm(const Image& image);
std::optional<Image> ReadPpm(const std::filesystem::path& path);

/// Raw camera frames of the picture: BT.601, limited range, which is what ffmpeg takes raw video
/// for.
std::string ToNv12(const Image& image);
std::string ToYuyv(const Image& image);

/// Mean absolute difference of each channel, in steps of 255; nothing when the sizes differ.
std::optional<std::array<double, 3>> MeanError(const Image& a, const Image& b);

}  // namespace varnel::board
