// A JPEG photo over the broker against the bare conversion of the same frame plus one frame time.
// Options: --directory (where clients may write), --rounds.
#include <stdexcept>

#include "support/caller.h"
#include "support/conversion.h"

namespace {

using namespace varnel::bench;

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
    const auto start = std::chrono::steady_clock::now();
    Convert(pixel_format, frame, directory + "/photo_bench_reference.jpg");
    conversions.push_back(Since(start));
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
