#include <dlfcn.h>
#include <gmock/gmock.h>

#include <array>
#include <cstring>

#include "recording_rga.h"
#include "service/analysis/picture/image_convert.h"
#include "service/analysis/picture/letterbox.h"
#include "service/analysis/picture/rga_library.h"
#include "service/analysis/pictures.h"

namespace varnel::service {

namespace rga {
bool operator==(const Rect& a, const Rect& b) {
  return std::memcmp(&a, &b, sizeof(Rect)) == 0;
}
}  // namespace rga

namespace {

using test::RgaRecording;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

/// In a picture of 640x640.
constexpr size_t kCentre = (size_t{320} * 640 + 320) * 3;

class RgaConvert : public testing::Test {
 protected:
  RgaConvert() { recording_ = RgaRecording{}; }

  static RgaRecording& Recorded() {
    void* const library = ::dlopen(RECORDING_RGA, RTLD_NOW | RTLD_NOLOAD);
    const auto recording = reinterpret_cast<RgaRecording* (*)()>(::dlsym(library, "Recording"));
    ::dlclose(library);  // the engine under test keeps it
    return *recording();
  }

  /// What it prints.
  std::string Letterbox(const Image& source, const Image& destination) {
    LetterBox box;
    CaptureStdout();
    EXPECT_EQ(
        convert_image_with_letterbox(source.buffer, destination.buffer, box, 114, false, engine_),
        0);
    return GetCapturedStdout();
  }

  const RgaLibrary engine_{std::array<std::string, 2>{"librga-absent.so", RECORDING_RGA}};
  RgaRecording& recording_ = Recorded();
};

TEST_F(RgaConvert, LetterboxesWithRightRectanglesStridesFormatsAndFill) {
  const Image source = Plain(1920, 1080, 10, 1984);
  const Image destination = Plain(640, 640, 20);

  EXPECT_EQ(Letterbox(source, destination), "");

  ASSERT_EQ(recording_.fills, 1);
  EXPECT_EQ(recording_.fill.rect, (rga::Rect{0, 0, 640, 640}));
  EXPECT_EQ(recording_.fill.colour, 0x72727272);
  EXPECT_EQ(recording_.fill.sync, 1);
  EXPECT_EQ(recording_.fill.target.vir_addr, destination.buffer.virt_addr);
  ASSERT_EQ(recording_.processes, 1);
  EXPECT_EQ(recording_.process.source.vir_addr, source.buffer.virt_addr);
  EXPECT_EQ(recording_.process.source.wstride, 1984);
  EXPECT_EQ(recording_.process.source.hstride, 1080);
  EXPECT_EQ(recording_.process.source.format, 0x200);
  EXPECT_EQ(recording_.process.destination.wstride, 640);
  EXPECT_EQ(recording_.process.source_rect, (rga::Rect{0, 0, 1920, 1080}));
  EXPECT_EQ(recording_.process.destination_rect, (rga::Rect{0, 140, 640, 360}));
  EXPECT_EQ(recording_.process.usage, 0x80000);
  // What the library keeps for itself comes back to it, and unused arguments are zero.
  EXPECT_THAT(recording_.process.source.rest, testing::Each(test::kRgaPrivateByte));
  EXPECT_THAT(recording_.process.pattern.rest, testing::Each(0));
  EXPECT_EQ(recording_.process.pattern_rect, rga::Rect{});
  EXPECT_EQ(destination.pixels[0], 20) << "the processor must not touch what the engine made";
}

TEST_F(RgaConvert, PassesDmaBuffersCropsAndFormatsOfItsOwn) {
  ImageBuffer source{.width = 64, .height = 48, .format = PixelFormat::kNv12, .fd = 7};
  const Image destination = Plain(32, 32, 20);
  const Rect crop{2, 4, 34, 20};
  const Rect place{0, 8, 32, 24};
  EXPECT_EQ(convert_image({source, destination.buffer, crop, place}, engine_), 0);
  EXPECT_EQ(recording_.fills, 0);
  EXPECT_EQ(recording_.process.source.fd, 7);
  EXPECT_EQ(recording_.process.source.format, 0xa00);
  EXPECT_EQ(recording_.process.source_rect, (rga::Rect{2, 4, 32, 16}));
  EXPECT_EQ(recording_.process.destination_rect, (rga::Rect{0, 8, 32, 16}));
}

TEST_F(RgaConvert, FailuresArePrintedEachTimeAndTheProcessorTakesOver) {
  const Image source = Plain(1920, 1080, 200);
  for (int round = 0; round < 2; ++round) {
    for (const rga::Status failure : {0, -4}) {
      const Image destination = Plain(640, 640, 20);
      recording_.process_status = failure;
      const std::string reason = failure == -4 ? "Fatal error: unsupported" : "other";
      EXPECT_EQ(Letterbox(source, destination),
                "Error on improcess STATUS=" + std::to_string(failure) +
                    "\nRGA error message: " + reason + "\ntry convert image use cpu\n");
      EXPECT_EQ(destination.pixels[0], 114);
      EXPECT_EQ(destination.pixels[kCentre], 200);
    }
  }
  EXPECT_EQ(recording_.processes, 4);
}

TEST_F(RgaConvert, FillsByItselfWhatTheEngineCannotFill) {
  const Image source = Plain(1920, 1080, 200);
  const Image destination = Plain(640, 640, 20);
  recording_.fill_status = -1;
  EXPECT_EQ(Letterbox(source, destination), "Warning: Can not fill color on target image\n");
  EXPECT_EQ(recording_.processes, 1);
  EXPECT_EQ(destination.pixels[0], 114);
  EXPECT_EQ(destination.pixels[kCentre], 20) << "the engine's part";
}

TEST_F(RgaConvert, IsNotAskedForRowsThatItCannotTake) {
  const Image destination = Plain(640, 640, 20);
  const Image narrow = Plain(632, 500, 20);
  const Image odd_stride = Plain(640, 640, 1, 650);
  for (const Image* source : {&narrow, &odd_stride}) {
    EXPECT_EQ(Letterbox(*source, destination), "try convert image use cpu\n");
  }
  EXPECT_EQ(Letterbox(destination, narrow), "try convert image use cpu\n");
  EXPECT_EQ(recording_.fills + recording_.processes, 0);
}

TEST(RgaLibrary, MissingOrTooOldLibrariesLeaveTheProcessor) {
  const RgaLibrary none(std::array<std::string, 2>{"librga-absent.so", "libpng16.so.16"});
  EXPECT_FALSE(none.IsLoaded());
  const Image source = Plain(64, 64, 9);
  const Image destination = Plain(32, 32, 0);
  CaptureStdout();
  EXPECT_EQ(convert_image({source.buffer, destination.buffer}, none), 0);
  EXPECT_EQ(GetCapturedStdout(), "try convert image use cpu\n");
  EXPECT_THAT(destination.pixels, testing::Each(9));
}

}  // namespace
}  // namespace varnel::service
