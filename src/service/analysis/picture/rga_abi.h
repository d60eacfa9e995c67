#pragma once

#include <cstddef>
#include <cstdint>

/// The binary interface of the 2D engine's library, as far as it is used here. It is reached at run
/// time only; the sizes and offsets below are what its functions expect.
namespace varnel::service::rga {

struct Rect {
  int32_t x = 0;
  int32_t y = 0;
  int32_t width = 0;
  int32_t height = 0;
};
static_assert(sizeof(Rect) == 16 && alignof(Rect) == 4);

/// A picture as the library describes it. Only its wrap functions fill one, and nothing behind
/// `format` is touched here: older libraries have another, shorter layout there.
struct Buffer {
  void* vir_addr = nullptr;
  void* phy_addr = nullptr;
  int32_t fd = 0;
  int32_t width = 0;
  int32_t height = 0;
  int32_t wstride = 0;
  int32_t hstride = 0;
  int32_t format = 0;
  uint8_t rest[56] = {};
};
static_assert(sizeof(Buffer) == 96 && alignof(Buffer) == 8);
static_assert(offsetof(Buffer, fd) == 16 && offsetof(Buffer, wstride) == 28);
static_assert(offsetof(Buffer, format) == 36 && offsetof(Buffer, rest) == 40);

/// Positive is success; 0 and below are failures.
using Status = int32_t;
inline constexpr Status kStatusNoError = 2;
inline constexpr Status kStatusSuccess = 1;
inline constexpr Status kStatusFailed = 0;

/// The job is finished when the call returns.
inline constexpr int kUsageSync = 0x80000;

using ImProcess = Status (*)(Buffer source, Buffer destination, Buffer pattern, Rect source_rect,
                             Rect destination_rect, Rect pattern_rect, int usage);
using ImFill = Status (*)(Buffer destination, Rect rect, int colour, int sync);
using WrapVirtualAddress = Buffer (*)(void* address, int width, int height, int wstride,
                                      int hstride, int format);
using WrapFd = Buffer (*)(int fd, int width, int height, int wstride, int hstride, int format);
using ErrorText = const char* (*)(Status status);

}  // namespace varnel::service::rga
