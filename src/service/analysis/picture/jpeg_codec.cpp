#include "service/analysis/picture/jpeg_codec.h"

#include <turbojpeg.h>

#include <algorithm>

#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/image_print.h"

namespace varnel::service {
namespace {

constexpr int64_t kMaxPixels = 64'000'000;

/// A small progressive file can ask for thousands of passes over a large picture.
constexpr int kDecodeFlags = TJFLAG_LIMITSCANS;

/// The library counts its warnings as failures, and says "warning" of a failure that follows one.
bool IsUsable(int result, tjhandle handle) {
  return result == 0 || tjGetErrorCode(handle) == TJERR_WARNING;
}

/// Rows are decoded in their order, so that the last one tells whether the decoder came to the end.
class LastRow {
 public:
  explicit LastRow(const ImageBuffer& image)
      : row_(image.virt_addr + static_cast<size_t>(image.height - 1) * RowPitch(image),
             RowPitch(image)) {
    for (size_t i = 0; i < row_.size(); ++i) row_[i] = Mark(i);
  }

  bool IsDecoded() const {
    for (size_t i = 0; i < row_.size(); ++i) {
      if (row_[i] != Mark(i)) return true;
    }
    return false;
  }

 private:
  /// Colours that jump from each pixel to the next further than a picture's ever do.
  static uint8_t Mark(size_t index) { return index % 2 == 0 ? 0xfd : 0x03; }

  const std::span<uint8_t> row_;
};

bool IsMidGrey(std::span<const uint8_t> row) {
  return std::all_of(row.begin(), row.end(), [](uint8_t value) { return value == 128; });
}

/// What a file that ends too early does not tell of a picture is decoded as plain mid-grey.
bool LacksMoreThanHalf(const ImageBuffer& image) {
  const size_t pitch = RowPitch(image);
  const auto rows = static_cast<size_t>(image.height);
  size_t missing = 0;
  while (missing < rows && IsMidGrey({image.virt_addr + (rows - 1 - missing) * pitch, pitch}))
    ++missing;
  return missing * 2 > rows;
}

void PrintWarning(tjhandle handle) {
  PrintMessage("warning : errorStr:%s, errorCode:%d\n", tjGetErrorStr2(handle),
               tjGetErrorCode(handle));
}

bool IsAccepted(int width, int height, int colorspace) {
  if (colorspace == TJCS_CMYK || colorspace == TJCS_YCCK) {
    PrintMessage("error : CMYK pictures are not supported\n");
    return false;
  }
  if (int64_t{width} * height > kMaxPixels) {
    PrintMessage("error : a picture of %dx%d is too large\n", width, height);
    return false;
  }
  return true;
}

}  // namespace

void FreeJpegBytes(uint8_t* bytes) {
  tjFree(bytes);
}

void CloseJpegHandle(void* handle) {
  tjDestroy(handle);
}

JpegDecoder& JpegDecoder::OfThisThread() {
  static thread_local JpegDecoder decoder;
  return decoder;
}

JpegDecoder::JpegDecoder() : handle_(tjInitDecompress()) {}

void JpegDecoder::PrintFailure() const {
  PrintMessage("error : decompress to yuv failed, errorStr:%s, errorCode:%d\n",
               tjGetErrorStr2(handle_.get()), tjGetErrorCode(handle_.get()));
}

bool JpegDecoder::ReadHeader(std::span<const uint8_t> file, Image& image) {
  int width = 0;
  int height = 0;
  int subsampling = 0;
  int colorspace = 0;
  const int result = tjDecompressHeader3(handle_.get(), file.data(), file.size(), &width, &height,
                                         &subsampling, &colorspace);
  if (!IsUsable(result, handle_.get()) || width <= 0 || height <= 0) {
    PrintFailure();
    return false;
  }
  return IsAccepted(width, height, colorspace) &&
         AllocateImage(image, width, height, PixelFormat::kRgb888);
}

int JpegDecoder::Decode(std::span<const uint8_t> file, Image& image) {
  if (TryDecode(file, image)) return 0;
  // After a failure the old one may be half-way in a file that it takes the next one for.
  handle_.reset(tjInitDecompress());
  return -1;
}

bool JpegDecoder::TryDecode(std::span<const uint8_t> file, Image& image) {
  if (!ReadHeader(file, image)) return false;
  const ImageBuffer& buffer = image.buffer;
  const LastRow last_row(buffer);
  const int result =
      tjDecompress2(handle_.get(), file.data(), file.size(), buffer.virt_addr, buffer.width,
                    static_cast<int>(RowPitch(buffer)), buffer.height, TJPF_RGB, kDecodeFlags);
  if (!IsUsable(result, handle_.get()) || !last_row.IsDecoded()) {
    PrintFailure();
    return false;
  }
  if (result == 0) return true;
  PrintWarning(handle_.get());
  if (!LacksMoreThanHalf(buffer)) return true;
  PrintMessage("error : more than half of the picture is missing\n");
  return false;
}

JpegEncoder& JpegEncoder::OfThisThread() {
  static thread_local JpegEncoder encoder;
  return encoder;
}

JpegEncoder::JpegEncoder() : handle_(tjInitCompress()) {}

JpegBytes JpegEncoder::Encode(const ImageBuffer& image, int quality) {
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  const int result =
      tjCompress2(handle_.get(), image.virt_addr, image.width, static_cast<int>(RowPitch(image)),
                  image.height, TJPF_RGB, &bytes, &size, TJSAMP_420, quality, 0);
  JpegBytes file{utils::Owned<uint8_t, FreeJpegBytes>(bytes), size};
  if (!IsUsable(result, handle_.get())) {
    PrintMessage("error : compress failed, errorStr:%s, errorCode:%d\n",
                 tjGetErrorStr2(handle_.get()), tjGetErrorCode(handle_.get()));
    handle_.reset(tjInitCompress());
    return {};
  }
  return file;
}

}  // namespace varnel::service
