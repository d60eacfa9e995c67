// The pictures of the print analysis: letterboxing against OpenCV's bilinear resize on one thread
// plus its border, JPEG files against the JPEG library alone; both take turns. Options: --directory
// (in memory, or the disk is measured), --runs.
#include <fmt/format.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <opencv2/imgproc.hpp>

#include "service/analysis/picture/image_files.h"
#include "service/analysis/picture/image_layout.h"
#include "service/analysis/picture/letterbox.h"
#include "support/photo.h"

namespace {

using namespace varnel::bench;
using namespace varnel::service;
namespace fs = std::filesystem;

constexpr int32_t kNetworkSide = 640;
constexpr uint8_t kGrey = 114;

void MeasureLetterbox(Report& report, int runs, int32_t width, int32_t height, double limit) {
  const Image photo = Photo(width, height);
  Image input;
  Check(AllocateImage(input, kNetworkSide, kNetworkSide, PixelFormat::kRgb888), "allocation");
  const auto ours = [&] {
    LetterBox letterbox;
    Check(convert_image_with_letterbox(photo.buffer, input.buffer, letterbox, kGrey, false) == 0,
          "letterbox");
  };
  const cv::Mat source(height, width, CV_8UC3, photo.buffer.virt_addr);
  const int scaled_height = height * kNetworkSide / width / 2 * 2;
  const int top = (kNetworkSide - scaled_height) / 4 * 2;
  cv::Mat scaled;
  cv::Mat bordered;
  const auto theirs = [&] {
    cv::resize(source, scaled, {kNetworkSide, scaled_height}, 0, 0, cv::INTER_LINEAR);
    cv::copyMakeBorder(scaled, bordered, top, kNetworkSide - scaled_height - top, 0, 0,
                       cv::BORDER_CONSTANT, cv::Scalar(kGrey, kGrey, kGrey));
  };
  CompareInTurns(report, fmt::format("letterbox from {}x{}", width, height), runs, limit, ours,
                 theirs);
}

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

File Open(const fs::path& path, const char* mode) {
  File file(std::fopen(path.c_str(), mode), std::fclose);
  Check(file != nullptr, "fopen");
  return file;
}

/// The JPEG library with everything kept that can be kept.
class Reference {
 public:
  void Read(const fs::path& path) {
    bytes_.resize(fs::file_size(path));
    Check(std::fread(bytes_.data(), bytes_.size(), 1, Open(path, "rb").get()) == 1, "fread");
    int width = 0;
    int height = 0;
    int subsampling = 0;
    int colorspace = 0;
    Check(tjDecompressHeader3(decoder_.get(), bytes_.data(), bytes_.size(), &width, &height,
                              &subsampling, &colorspace) == 0,
          "header");
    pixels_.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * 3);
    Check(tjDecompress2(decoder_.get(), bytes_.data(), bytes_.size(), pixels_.data(), width, 0,
                        height, TJPF_RGB, TJFLAG_LIMITSCANS) == 0,
          "decompression");
  }

  void Write(const fs::path& path, const ImageBuffer& image) {
    written_.resize(tjBufSize(image.width, image.height, TJSAMP_420));
    unsigned char* out = written_.data();
    unsigned long size = written_.size();
    Check(tjCompress2(encoder_.get(), image.virt_addr, image.width, 0, image.height, TJPF_RGB, &out,
                      &size, TJSAMP_420, kJpegQuality, TJFLAG_NOREALLOC) == 0,
          "compression");
    Check(std::fwrite(out, size, 1, Open(path, "wb").get()) == 1, "fwrite");
  }

 private:
  using Handle = std::unique_ptr<void, int (*)(tjhandle)>;

  const Handle decoder_{tjInitDecompress(), tjDestroy};
  const Handle encoder_{tjInitCompress(), tjDestroy};
  std::vector<uint8_t> bytes_;
  std::vector<uint8_t> pixels_;
  std::vector<uint8_t> written_;
};

void MeasureJpeg(Report& report, int runs, const fs::path& directory) {
  const Image photo = Photo(1920, 1080);
  const fs::path ours = directory / "ours.jpg";
  const fs::path theirs = directory / "theirs.jpg";
  Reference reference;
  CompareInTurns(
      report, "JPEG write, 1920x1080", runs, 1.1,
      [&] { Check(write_image_jpeg(ours, kJpegQuality, photo.buffer) == 0, "writing"); },
      [&] { reference.Write(theirs, photo.buffer); });
  CompareInTurns(
      report, "JPEG read, 1920x1080", runs, 1.1,
      [&] {
        Image image;
        Check(read_image(theirs, image) == 0, "reading");
      },
      [&] { reference.Read(theirs); });
}

int Measure(const Options& options) {
  cv::setNumThreads(1);
  const int runs = options.Number("runs", 101);
  const fs::path directory =
      fs::path(options.Text("directory", "/dev/shm")) / ("image-bench-" + std::to_string(getpid()));
  Report report;
  MeasureLetterbox(report, runs, 1920, 1080, 0.7);
  MeasureLetterbox(report, runs, 1900, 1069, 1.3);
  fs::create_directory(directory);
  MeasureJpeg(report, runs, directory);
  fs::remove_all(directory);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
