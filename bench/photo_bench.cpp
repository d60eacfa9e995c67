// A JPEG photo over the broker against the bare conversion of the same frame plus one frame time.
// Options: --directory (where clients may write), --rounds.
#include <filesystem>
#include <stdexcept>

#include "support/caller.h"
#include "support/process.h"

namespace {

using namespace varnel::bench;

constexpr double kFrameTime = 1000.0 / 30;
// The answer that says that the photo is there.
constexpr const char* kSuccess = R"("state":"success")";

double Photo(MqttLink& link, const Target& daemon, uint64_t id, const std::string& file) {
  const auto start = std::chrono::steady_clock::now();
  link.Publish(
      daemon.request_topic,
      RequestText(id, "camera.take_a_photo", R"({"reason":"debug","filepath":")" + file + R"("})"));
  const std::string answer = AwaitAnswer(link, id, std::chrono::seconds(15));
  if (answer.find(kSuccess) == std::string::npos) {
    throw std::runtime_error("the photo failed: " + answer);
  }
  return Since(start);
}

double Conversion(const std::string& pixel_format, const std::string& frame,
                  const std::string& picture) {
  const auto start = std::chrono::steady_clock::now();
  Run({"/usr/bin/ffmpeg", "-y", "-v", "error", "-f", "rawvideo", "-pix_fmt", pixel_format, "-s",
       "1920x1080", "-i", frame, "-frames:v", "1", picture});
  return Since(start);
}

// The two frame formats of the daemon differ in size.
std::string PixelFormat(const std::string& frame) {
  constexpr uintmax_t kPixels = 1920UL * 1080UL;
  const uintmax_t size = std::filesystem::file_size(frame);
  if (size == kPixels * 3 / 2) {
    return "nv12";
  }
  if (size == kPixels * 2) {
    return "yuyv422";
  }
  throw std::runtime_error(frame + " is no frame of 1920x1080");
}

int Measure(const Options& options) {
  const Target daemon = DaemonTarget(options);
  const std::string directory = options.Text("directory", "/userdata");
  const std::string frame = directory + "/photo_bench.raw";
  MqttLink link = Connect(options, "photo-bench");
  link.Subscribe(daemon.response_topic, 0);
  uint64_t id = 0;
  Photo(link, daemon, ++id, frame);
  const std::string pixel_format = PixelFormat(frame);
  std::vector<double> photos;
  std::vector<double> conversions;
  for (int round = 0; round < options.Number("rounds", 15); ++round) {
    photos.push_back(Photo(link, daemon, ++id, directory + "/photo_bench.jpg"));
    conversions.push_back(
        Conversion(pixel_format, frame, directory + "/photo_bench_reference.jpg"));
  }
  const double photo = Percentile(photos, 0.5);
  const double reference = Percentile(conversions, 0.5) + kFrameTime;
  Report report;
  report.Figure("JPEG photo, request to answer", photo, "ms");
  report.Figure("bare conversion plus one frame time", reference, "ms");
  report.AtMost("JPEG photo, ratio", photo / reference, 1.1);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
