#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace varnel::service {

/// Pixel layouts, with the 2D engine's own values. Names give the byte order in memory.
enum class PixelFormat : int32_t {
  kRgba8888 = 0x000,
  kRgb888 = 0x200,
  kBgr888 = 0x700,
  kNv12 = 0xa00,
  kGrey8 = 0x1500,
  kUnknown = 0x10000,
};

/// Bytes of one pixel in a packed format; 0 for planar and unknown ones.
[[nodiscard]] constexpr int32_t BytesPerPixel(PixelFormat format) {
  switch (format) {
    case PixelFormat::kRgba8888:
      return 4;
    case PixelFormat::kRgb888:
    case PixelFormat::kBgr888:
      return 3;
    case PixelFormat::kGrey8:
      return 1;
    default:
      return 0;
  }
}

/// A view of pixels that somebody else owns. Strides are in pixels; 0 means equal to the width or
/// the height.
struct ImageBuffer {
  int32_t width = 0;
  int32_t height = 0;
  int32_t width_stride = 0;
  int32_t height_stride = 0;
  PixelFormat format = PixelFormat::kRgb888;
  uint8_t* virt_addr = nullptr;
  size_t size = 0;  ///< bytes at virt_addr
  int fd = -1;      ///< DMA buffer of the same pixels, -1 without
};

/// Leaves new elements undefined: zeroing a picture that is written right after takes as long as a
/// tenth of decoding it.
template <class T>
struct UndefinedElements : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = UndefinedElements<U>;
  };
  template <class U>
  void construct(U* place) noexcept {
    ::new (static_cast<void*>(place)) U;
  }
  template <class U, class... Arguments>
  void construct(U* place, Arguments&&... arguments) {
    ::new (static_cast<void*>(place)) U(std::forward<Arguments>(arguments)...);
  }
};

/// A buffer's bytes; undefined after resize().
using PixelBytes = std::vector<uint8_t, UndefinedElements<uint8_t>>;

/// Pixels with their owner.
struct Image {
  ImageBuffer buffer;  ///< views `pixels`
  PixelBytes pixels;

  Image() = default;
  Image(Image&& other) noexcept = default;  // a moved vector keeps its address
  Image& operator=(Image&& other) noexcept = default;
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;
  ~Image() = default;
};

}  // namespace varnel::service
