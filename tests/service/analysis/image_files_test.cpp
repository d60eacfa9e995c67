#include "service/analysis/picture/image_files.h"

#include <gmock/gmock.h>
#include <png.h>
#include <sys/stat.h>
#include <turbojpeg.h>

#include <algorithm>
#include <memory>
#include <thread>

#include "service/analysis/pictures.h"
#include "support/temp_dir.h"

namespace varnel::service {
namespace {

using test::TempDir;
using testing::HasSubstr;
using testing::StartsWith;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr int32_t kWidth = 80;
constexpr int32_t kHeight = 48;

/// A smooth picture, with unused pixels behind each row.
Image Gradient(PixelFormat format = PixelFormat::kRgb888) {
  Image image = Plain(kWidth, kHeight, 0, kWidth + 5, format);
  const size_t pitch = std::max<size_t>(RowPitch(image.buffer), 1);
  for (size_t i = 0; i < image.pixels.size(); ++i) {
    image.pixels[i] = static_cast<uint8_t>(i % pitch / 3 + 2 * (i / pitch));
  }
  return image;
}

/// The bytes of a JPEG file of any kind, of medium brightness.
std::string Jpeg(int pixel_format, int subsampling, int flags) {
  const std::unique_ptr<void, int (*)(tjhandle)> handle(tjInitCompress(), tjDestroy);
  std::vector<uint8_t> pixels(size_t{kWidth} * kHeight * 4);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * i / 64);
  unsigned char* bytes = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(handle.get(), pixels.data(), kWidth, 0, kHeight, pixel_format, &bytes,
                        &size, subsampling, 90, flags),
            0);
  std::string file(reinterpret_cast<const char*>(bytes), size);
  tjFree(bytes);
  return file;
}

const std::string& GoodJpeg() {
  static const std::string kFile = Jpeg(TJPF_RGB, TJSAMP_420, 0);
  return kFile;
}

std::string ProgressiveJpeg() {
  return Jpeg(TJPF_RGB, TJSAMP_420, TJFLAG_PROGRESSIVE);
}

/// The good file claiming another size.
std::string ResizedJpeg(uint16_t width, uint16_t height) {
  std::string file = GoodJpeg();
  const size_t frame = file.find("\xff\xc0");
  for (const auto& [at, side] : {std::pair(frame + 5, height), std::pair(frame + 7, width)}) {
    file[at] = static_cast<char>(side >> 8U);
    file[at + 1] = static_cast<char>(side & 0xffU);
  }
  return file;
}

/// A progressive file whose last scan comes 600 times.
std::string ScanBomb() {
  std::string file = ProgressiveJpeg();
  const size_t scan = file.rfind("\xff\xda");
  const std::string last = file.substr(scan, file.size() - 2 - scan);
  for (int i = 0; i < 600; ++i) file.insert(scan, last);
  return file;
}

/// The first scan lacks bytes, which is a warning; then comes what no file may have.
std::string WarningThenFailure() {
  std::string file = ProgressiveJpeg();
  size_t marker = file.find("\xff\xda") + 2;
  do {
    marker = file.find('\xff', marker + 1);
  } while (file[marker + 1] == '\0');
  file[marker + 1] = '\xd8';
  return file.erase(marker - 20, 20);
}

int ReadQuietly(const std::string& path, Image& image, std::string& printed) {
  CaptureStdout();
  const int result = read_image(path, image);
  printed = GetCapturedStdout();
  return result;
}

TEST(ReadImage, DecodesEveryKindToPackedRgb) {
  const TempDir directory;
  const std::pair<const char*, std::string> files[] = {
      {"rgb.jpg", GoodJpeg()},
      {"grey.jpeg", Jpeg(TJPF_GRAY, TJSAMP_GRAY, 0)},
      {"progressive.JPG", ProgressiveJpeg()},
      {"full.JPEG", Jpeg(TJPF_RGB, TJSAMP_444, 0)}};
  Image image;
  for (const auto& [name, bytes] : files) {
    std::string printed;
    EXPECT_EQ(ReadQuietly(directory.Write(name, bytes), image, printed), 0) << name;
    EXPECT_EQ(printed, "") << name;
    EXPECT_EQ(image.buffer.width, kWidth);
    EXPECT_EQ(image.buffer.height, kHeight);
    EXPECT_EQ(image.buffer.format, PixelFormat::kRgb888);
    EXPECT_EQ(image.buffer.virt_addr, image.pixels.data());
    EXPECT_EQ(image.buffer.size, size_t{kWidth} * kHeight * 3);
    const uint8_t* const pixel = image.pixels.data() + 300;
    EXPECT_EQ(pixel[0] == pixel[1] && pixel[1] == pixel[2], name[0] == 'g') << name;
  }
}

TEST(ReadImage, SaysWhyAFileIsRefused) {
  const TempDir directory;
  const std::string failed = "error : decompress to yuv failed, errorStr:";
  const std::string empty = "determining input file size, Input file contains no data\n";
  const std::tuple<const char*, std::string, std::string> files[] = {
      {"empty.jpg", "", empty},
      {"text.jpg", "this is no picture at all", failed},
      {"cut_header.jpg", GoodJpeg().substr(0, 180), failed},
      {"cmyk.jpg", Jpeg(TJPF_CMYK, TJSAMP_444, 0), "error : CMYK pictures are not supported\n"},
      {"large.jpg", ResizedJpeg(8001, 8000), "error : a picture of 8001x8000 is too large\n"},
      {"bomb.jpg", ScanBomb(), failed},
      {"little.jpg", GoodJpeg().substr(0, GoodJpeg().size() * 3 / 8),
       "warning : errorStr:Premature end of JPEG file, errorCode:0\n"
       "error : more than half of the picture is missing\n"},
      {"broken.jpg", WarningThenFailure(), failed},
      {"empty.data", "", "fread " + (directory / "empty.data").string() + " fail!\n"},
      {"picture.bmp", "BM", (directory / "picture.bmp").string() + ": not a picture's name\n"}};
  std::string printed;
  Image image;
  for (const auto& [name, bytes, message] : files) {
    EXPECT_LT(ReadQuietly(directory.Write(name, bytes), image, printed), 0) << name;
    EXPECT_THAT(printed, StartsWith(message)) << name;
    EXPECT_EQ(printed.back(), '\n') << name;
    EXPECT_EQ(ReadQuietly(directory.Write("good.jpg", GoodJpeg()), image, printed), 0)
        << "after " << name;
  }
  EXPECT_LT(ReadQuietly(directory / "missing.jpg", image, printed), 0);
  EXPECT_EQ(printed, "open input file failure\n");
  EXPECT_LT(ReadQuietly(directory / "missing.data", image, printed), 0);
  EXPECT_THAT(printed, StartsWith("fopen "));
  ASSERT_EQ(::mkfifo((directory / "pipe.jpg").c_str(), 0600), 0);
  EXPECT_LT(ReadQuietly(directory / "pipe.jpg", image, printed), 0);
  EXPECT_EQ(printed, empty);
}

TEST(ReadImage, UsesATruncatedFileWithTheDecodersWarning) {
  const TempDir directory;
  Image whole;
  Image cut;
  std::string printed;
  ASSERT_EQ(ReadQuietly(directory.Write("whole.jpg", GoodJpeg()), whole, printed), 0);
  const auto path = directory.Write("cut.jpg", GoodJpeg().substr(0, GoodJpeg().size() * 3 / 4));
  EXPECT_EQ(ReadQuietly(path, cut, printed), 0);
  EXPECT_THAT(printed, StartsWith("warning : errorStr:"));
  EXPECT_THAT(printed, HasSubstr(", errorCode:0\n"));
  EXPECT_TRUE(std::equal(cut.pixels.begin(), cut.pixels.begin() + std::ptrdiff_t{kWidth} * 3 * 8,
                         whole.pixels.begin()));
}

TEST(WriteImage, JpegComesBackAlikeFromEveryThread) {
  const TempDir directory;
  const Image image = Gradient();
  const auto check = [&](const std::string& path) {
    ASSERT_EQ(write_image(path, image.buffer), 0);
    Image again;
    ASSERT_EQ(read_image(path, again), 0);
    for (size_t y = 0; y < kHeight; ++y) {
      for (size_t x = 0; x < size_t{kWidth} * 3; ++x) {
        ASSERT_NEAR(again.pixels[y * kWidth * 3 + x], image.pixels[y * (kWidth + 5) * 3 + x], 8);
      }
    }
  };
  std::thread other(check, directory / "other.JPEG");
  check(directory / "one.jpg");
  other.join();
}

TEST(WriteImage, PngAndRawKeepEveryByte) {
  const TempDir directory;
  for (const PixelFormat format :
       {PixelFormat::kRgb888, PixelFormat::kBgr888, PixelFormat::kGrey8, PixelFormat::kRgba8888}) {
    const Image image = Gradient(format);
    const auto channels = static_cast<size_t>(BytesPerPixel(format));
    ASSERT_EQ(write_image(directory / "a.png", image.buffer), 0);
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    ASSERT_NE(png_image_begin_read_from_file(&png, (directory / "a.png").c_str()), 0);
    png.format = format == PixelFormat::kBgr888 ? PNG_FORMAT_BGR : png.format;
    std::vector<uint8_t> pixels(size_t{kWidth} * kHeight * channels);
    ASSERT_EQ(PNG_IMAGE_SIZE(png), pixels.size());
    ASSERT_NE(png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr), 0);
    for (size_t y = 0; y < kHeight; ++y) {
      const auto row = pixels.begin() + static_cast<std::ptrdiff_t>(y * kWidth * channels);
      ASSERT_TRUE(std::equal(row, row + static_cast<std::ptrdiff_t>(kWidth * channels),
                             image.pixels.data() + y * RowPitch(image.buffer)));
    }
  }
  const Image image = Gradient();
  Image again;
  ASSERT_EQ(write_image(directory / "a.data", image.buffer), 0);
  ASSERT_EQ(read_image(directory / "a.data", again), 0);
  EXPECT_EQ(again.pixels, image.pixels);
  EXPECT_EQ(again.buffer.width, 0);
}

TEST(WriteImage, AFailureIsPrintedAndLeavesNothingBehind) {
  const TempDir directory;
  Image image = Gradient();
  std::filesystem::create_directory(directory / "taken.jpg");
  const auto refuse = [&](const std::string& path, const std::string& message) {
    CaptureStdout();
    EXPECT_LT(write_image(path, image.buffer), 0) << path;
    EXPECT_THAT(GetCapturedStdout(), HasSubstr(message)) << path;
  };
  refuse(directory / "taken.jpg", "Is a directory\n");
  refuse(directory / "no/where.png", "No such file or directory\n");
  refuse(directory / "a.gif", "not a picture's name\n");
  image.buffer.format = PixelFormat::kNv12;
  refuse(directory / "a.jpg", "write_image_jpeg: pixel format 2560 not support\n");
  refuse(directory / "a.png", "write_image_png: pixel format 2560 not support\n");
  image.buffer.format = PixelFormat::kRgb888;
  image.buffer.size = 10;
  refuse(directory / "a.jpg", "write_image_jpeg: no pixels\n");
  const std::filesystem::directory_iterator left(directory.Path());
  EXPECT_EQ(std::distance(begin(left), end(left)), 1);
}

}  // namespace
}  // namespace varnel::service
