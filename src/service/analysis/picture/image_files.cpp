#include "service/analysis/picture/image_files.h"

#include <fcntl.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <new>
#include <span>
#include <string_view>

#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/image_print.h"
#include "service/analysis/picture/jpeg_codec.h"
#include "utils/atomic_file.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

/// No picture of the largest accepted size has more.
constexpr size_t kMaxFileBytes = 256'000'000;

enum class FileType { kJpeg, kPng, kRaw, kUnknown };

FileType TypeOf(const std::string& path) {
  struct Known {
    std::string_view ending;
    FileType type;
  };
  static constexpr std::array<Known, 8> kKnown = {{{".jpg", FileType::kJpeg},
                                                   {".jpeg", FileType::kJpeg},
                                                   {".JPG", FileType::kJpeg},
                                                   {".JPEG", FileType::kJpeg},
                                                   {".png", FileType::kPng},
                                                   {".PNG", FileType::kPng},
                                                   {".data", FileType::kRaw},
                                                   {".DATA", FileType::kRaw}}};
  const std::string ending = utils::FileEnding(path);
  for (const Known& known : kKnown) {
    if (ending == known.ending) return known.type;
  }
  return FileType::kUnknown;
}

/// A regular file that is open for reading; a FIFO in its place cannot hang the caller.
utils::UniqueFd OpenFile(const std::string& path) {
  return utils::UniqueFd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

/// 0 for what is no file or is too large.
size_t SizeOf(int fd) {
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size <= 0) {
    return 0;
  }
  const auto size = static_cast<size_t>(info.st_size);
  return size <= kMaxFileBytes ? size : 0;
}

/// False when the file ends before the span is full.
bool ReadFully(int fd, std::span<uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t got = ::read(fd, bytes.data(), bytes.size());
    if (got == 0 || (got < 0 && errno != EINTR)) {
      return false;
    }
    bytes = bytes.subspan(got > 0 ? static_cast<size_t>(got) : 0);
  }
  return true;
}

int ReadJpeg(const std::string& path, Image& image) {
  const utils::UniqueFd fd = OpenFile(path);
  if (!fd) {
    PrintMessage("open input file failure\n");
    return -1;
  }
  const size_t size = SizeOf(fd.Get());
  if (size == 0) {
    PrintMessage("determining input file size, Input file contains no data\n");
    return -1;
  }
  // Not a container: the bytes need no zeroing first.
  const std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[size]);
  if (bytes == nullptr) {
    PrintMessage("allocating JPEG buffer failed\n");
    return -1;
  }
  if (!ReadFully(fd.Get(), {bytes.get(), size})) {
    PrintMessage("reading input file error\n");
    return -1;
  }
  return JpegDecoder::OfThisThread().Decode({bytes.get(), size}, image);
}

int ReadRaw(const std::string& path, Image& image) {
  const utils::UniqueFd fd = OpenFile(path);
  if (!fd) {
    PrintMessage("fopen %s fail!\n", path.c_str());
    return -1;
  }
  image.buffer = {};
  image.pixels.resize(SizeOf(fd.Get()));
  if (image.pixels.empty() || !ReadFully(fd.Get(), image.pixels)) {
    PrintMessage("fread %s fail!\n", path.c_str());
    return -1;
  }
  image.buffer.virt_addr = image.pixels.data();
  image.buffer.size = image.pixels.size();
  return 0;
}

/// A result picture is lost without harm when the power fails, and waiting for the disk would slow
/// every detection down.
int WriteBytes(const std::string& path, const uint8_t* bytes, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  const std::error_code error =
      utils::WriteFileAtomically(path, text, 0644, utils::Durability::kCrash);
  if (error) {
    PrintMessage("write %s fail: %s\n", path.c_str(), error.message().c_str());
    return -1;
  }
  return 0;
}

/// The format number of the PNG library; nothing that it has is -1.
int PngFormat(PixelFormat format) {
  switch (format) {
    case PixelFormat::kRgb888:
      return PNG_FORMAT_RGB;
    case PixelFormat::kBgr888:
      return PNG_FORMAT_BGR;
    case PixelFormat::kRgba8888:
      return PNG_FORMAT_RGBA;
    case PixelFormat::kGrey8:
      return PNG_FORMAT_GRAY;
    default:
      return -1;
  }
}

int WritePng(const std::string& path, const ImageBuffer& image) {
  const int format = PngFormat(image.format);
  if (format < 0 || !HasPixels(image)) {
    PrintMessage("write_image_png: pixel format %d not support\n", static_cast<int>(image.format));
    return -1;
  }
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.width);
  png.height = static_cast<png_uint_32>(image.height);
  png.format = static_cast<png_uint_32>(format);
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(png);
  const std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[size]);
  const auto pitch = static_cast<png_int_32>(RowPitch(image));
  if (bytes == nullptr || png_image_write_to_memory(&png, bytes.get(), &size, 0, image.virt_addr,
                                                    pitch, nullptr) == 0) {
    PrintMessage("write_image_png: %s\n", bytes == nullptr ? "no memory" : png.message);
    return -1;
  }
  return WriteBytes(path, bytes.get(), size);
}

int WriteRaw(const std::string& path, const ImageBuffer& image) {
  if (image.virt_addr == nullptr) {
    PrintMessage("fwrite %s fail!\n", path.c_str());
    return -1;
  }
  return WriteBytes(path, image.virt_addr, image.size);
}

int RefuseName(const std::string& path) {
  PrintMessage("%s: not a picture's name\n", path.c_str());
  return -1;
}

}  // namespace

int read_image(const std::string& path, Image& image) {
  switch (TypeOf(path)) {
    case FileType::kJpeg:
      return ReadJpeg(path, image);
    case FileType::kRaw:
      return ReadRaw(path, image);
    default:
      return RefuseName(path);
  }
}

int write_image_jpeg(const std::string& path, int quality, const ImageBuffer& image) {
  if (image.format != PixelFormat::kRgb888) {
    PrintMessage("write_image_jpeg: pixel format %d not support\n", static_cast<int>(image.format));
    return -1;
  }
  if (!HasPixels(image)) {
    PrintMessage("write_image_jpeg: no pixels\n");
    return -1;
  }
  const JpegBytes file = JpegEncoder::OfThisThread().Encode(image, quality);
  return file.bytes == nullptr ? -1 : WriteBytes(path, file.bytes.get(), file.size);
}

int write_image(const std::string& path, const ImageBuffer& image) {
  switch (TypeOf(path)) {
    case FileType::kJpeg:
      return write_image_jpeg(path, kJpegQuality, image);
    case FileType::kPng:
      return WritePng(path, image);
    case FileType::kRaw:
      return WriteRaw(path, image);
    case FileType::kUnknown:
      return RefuseName(path);
  }
  return -1;
}

}  // namespace varnel::service
