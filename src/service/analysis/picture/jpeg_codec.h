#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "service/analysis/picture/image_buffer.h"
#include "utils/owned.h"

namespace varnel::service {

/// Frees what the JPEG library allocated.
void FreeJpegBytes(uint8_t* bytes);

/// A JPEG file in memory.
struct JpegBytes {
  utils::Owned<uint8_t, FreeJpegBytes> bytes;
  size_t size = 0;
};

/// Closes a handle of the JPEG library.
void CloseJpegHandle(void* handle);
using JpegHandle = utils::Owned<void, CloseJpegHandle>;

/// Decodes into packed RGB. Making a handle costs more than a small picture, so it is kept as long
/// as it succeeds; one decoder serves one thread.
class JpegDecoder {
 public:
  /// The calling thread's own; it ends with the thread.
  [[nodiscard]] static JpegDecoder& OfThisThread();
  JpegDecoder();

  /// Failures and the library's warnings (a truncated file's, for one) are printed. CMYK pictures,
  /// pictures of more than 64 megapixels, progressive ones of very many scans and those of which
  /// more than half is missing are refused.
  /// @return 0 or negative
  [[nodiscard]] int Decode(std::span<const uint8_t> file, Image& image);

 private:
  [[nodiscard]] bool TryDecode(std::span<const uint8_t> file, Image& image);
  [[nodiscard]] bool ReadHeader(std::span<const uint8_t> file, Image& image);
  void PrintFailure() const;

  JpegHandle handle_;  ///< null when there was no memory, which every call of the library reports
};

/// Encodes packed RGB, 4:2:0; a kept handle like the decoder's.
class JpegEncoder {
 public:
  /// The calling thread's own; it ends with the thread.
  [[nodiscard]] static JpegEncoder& OfThisThread();
  JpegEncoder();

  /// @return no bytes after a failure, which is printed
  [[nodiscard]] JpegBytes Encode(const ImageBuffer& image, int quality);

 private:
  JpegHandle handle_;
};

}  // namespace varnel::service
