#pragma once

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace varnel::service {

inline constexpr int kJpegWidth = 80;
inline constexpr int kJpegHeight = 48;

/// The bytes of a JPEG file of any kind, of medium brightness.
inline std::string Jpeg(int pixel_format, int subsampling, int flags) {
  const std::unique_ptr<void, int (*)(tjhandle)> handle(tjInitCompress(), tjDestroy);
  std::vector<uint8_t> pixels(size_t{kJpegWidth} * kJpegHeight * 4);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * i / 64);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(handle.get(), pixels.data(), kJpegWidth, 0, kJpegHeight, pixel_format,
                        &bytes, &size, subsampling, 90, flags),
            0);
  std::string file(reinterpret_cast<const char*>(bytes), size);
  tjFree(bytes);
  return file;
}

inline const std::string& GoodJpeg() {
  static const std::string kFile = Jpeg(TJPF_RGB, TJSAMP_420, 0);
  return kFile;
}

inline std::string ProgressiveJpeg() {
  return Jpeg(TJPF_RGB, TJSAMP_420, TJFLAG_PROGRESSIVE);
}

/// The good file claiming another size.
inline std::string ResizedJpeg(uint16_t width, uint16_t height) {
  std::string file = GoodJpeg();
  const size_t frame = file.find("\xff\xc0");
  for (const auto& [at, side] : {std::pair(frame + 5, height), std::pair(frame + 7, width)}) {
    file[at] = static_cast<char>(side >> 8U);
    file[at + 1] = static_cast<char>(side & 0xffU);
  }
  return file;
}

}  // namespace varnel::service
