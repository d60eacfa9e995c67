// A whole detection of a 1920x1080 photo, with an NPU that answers at once and result directories
// at their limit, against what cannot be left out: decoding the photo and letterboxing it; without
// a find and with one that is verified. Options: --directory (in memory, or the disk is measured),
// --runs.
#include <fmt/format.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "service/analysis/decision/printer_analysis.h"
#include "service/analysis/network/rknn_library.h"
#include "service/analysis/npu_stand_in.h"
#include "service/analysis/picture/image_files.h"
#include "service/analysis/picture/letterbox.h"
#include "support/photo.h"

namespace {

using namespace varnel::bench;
using namespace varnel::service;
namespace fs = std::filesystem;
using nlohmann::json;

constexpr uint32_t kNetworkSide = 640;
constexpr int kPictureLimit = 100;
constexpr double kMaxMegabytes = 40;

/// The largest resident size since the last ResetPeak(), in megabytes.
double PeakMegabytes() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;) {
    if (word != "VmHWM:") continue;
    double kilobytes = 0;
    status >> kilobytes;
    return kilobytes / 1024;
  }
  throw std::runtime_error("no VmHWM");
}

void ResetPeak() {
  std::ofstream("/proc/self/clear_refs") << "5";
}

/// The board's models and results in a directory that goes with the object.
class Place {
 public:
  explicit Place(fs::path directory) : directory_(std::move(directory)) {
    fs::create_directories(directory_ / "model");
    for (const char* name : {"bed_check", "print_check", "noodle_verify"})
      std::ofstream(directory_ / "model" / (std::string(name) + ".fp.rknn")) << "network";
    Check(write_image_jpeg(Photograph(), kJpegQuality, Photo(1920, 1080).buffer) == 0, "writing");
  }
  ~Place() {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  std::string Photograph() const { return directory_ / "photo.jpg"; }
  AnalysisSetup Setup(const RknnLibrary& library) const {
    AnalysisSetup setup;
    setup.models = directory_ / "model";
    setup.results = directory_ / "results";
    setup.library = &library;
    return setup;
  }
  /// As the daemon logs: lines go to a file.
  void LogToFile() const {
    spdlog::set_default_logger(spdlog::basic_logger_mt("bench", directory_ / "log"));
  }

 private:
  const fs::path directory_;
};

/// Noodles of 27x27 cells in a row.
ScriptedNetwork Finding(uint32_t noodles) {
  ScriptedNetwork network = ScriptedNetwork::Detecting(kNetworkSide, kNetworkSide, 1);
  for (uint32_t i = 0; i < noodles; ++i)
    network.Place(0, 40, 14 + i * 28, 0, 0.9F, {13, 13, 13, 13});
  return network;
}

void Script(uint32_t noodles) {
  TheNpuScript() = {};
  TheNpuScript().networks["print_check.fp.rknn"] = Finding(noodles);
  TheNpuScript().networks["noodle_verify.fp.rknn"] =
      ScriptedNetwork::Classifying(kNetworkSide, kNetworkSide, {0, 1});
}

void Detect(PrinterAnalysis& analysis, const std::string& photo, const char* status) {
  const json params = {{"labels", {"noodle"}}, {"detect_status", status}};
  Check(analysis.DetectPicture(photo, params).Code() == 0, "detection");
}

void DecodeAndLetterbox(const std::string& photo, Image& input) {
  Image picture;
  LetterBox letterbox;
  Check(read_image(photo, picture) == 0, "reading");
  Check(convert_image_with_letterbox(picture.buffer, input.buffer, letterbox, 114, false) == 0,
        "letterbox");
}

/// The result directories are at their limit before the first measured run. A find has pictures of
/// its own encoded, which nothing can save, so that only the picture without one has a limit.
void MeasureTime(Report& report, const Place& place, const RknnLibrary& library, int runs,
                 bool find) {
  Script(find ? 1 : 0);
  PrinterAnalysis analysis(place.Setup(library));
  const auto detect = [&] { Detect(analysis, place.Photograph(), ""); };
  {
    const QuietOutput quiet;
    for (int i = 0; i < kPictureLimit; ++i) detect();
  }
  Image input;
  Check(AllocateImage(input, kNetworkSide, kNetworkSide, PixelFormat::kRgb888), "allocation");
  const auto reference = [&] { DecodeAndLetterbox(place.Photograph(), input); };
  if (find) {
    const std::string name = "detection with a verified find";
    report.Figure(name + ", ratio", MeasureInTurns(report, name, runs, detect, reference), "times");
  } else {
    CompareInTurns(report, "detection without a find", runs, 1.5, detect, reference);
  }
}

/// A find is verified, cropped, compared with the reference, drawn and encoded.
void MeasureMemory(Report& report, const Place& place, const RknnLibrary& library) {
  Script(2);
  double before = 0;
  double peak = 0;
  {
    const QuietOutput quiet;
    PrinterAnalysis analysis(place.Setup(library));
    ResetPeak();
    before = PeakMegabytes();
    for (const char* status : {"first", "", "", "last"})
      Detect(analysis, place.Photograph(), status);
    peak = PeakMegabytes();
  }
  report.AtMost("memory of detections with two finds, MB", peak - before, kMaxMegabytes);
}

int Measure(const Options& options) {
  const Place place(fs::path(options.Text("directory", "/dev/shm")) /
                    ("detection-bench-" + std::to_string(getpid())));
  place.LogToFile();
  const RknnLibrary library({kNpuStandIn});
  Check(library.Api() != nullptr, "loading the stand-in of the NPU");
  Report report;
  MeasureMemory(report, place, library);
  for (const bool find : {false, true})
    MeasureTime(report, place, library, options.Number("runs", 101), find);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
