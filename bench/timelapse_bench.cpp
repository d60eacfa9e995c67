// Time-lapses against bare programs and loops doing the same, taking turns: making a film of many
// segments, listing many films; and the memory that a long print takes.
// Options: --directory (in memory, or the disk is measured), --segments, --films, --photos.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "service/camera/timelapse/films/timelapse_service.h"
#include "support/process.h"
#include "support/report.h"
#include "utils/log.h"

namespace {

using namespace varnel::bench;
using namespace varnel::service;
using nlohmann::json;
namespace fs = std::filesystem;

constexpr const char* kIndex = "20260101000000";
constexpr uint32_t kFrameRate = 30;

double Milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

int NoClients(const std::string&, const json&) {
  return 0;
}

/// A store of its own; large, so it goes in any case.
class Store {
 public:
  explicit Store(const fs::path& parent)
      : directory_(parent / ("timelapse-bench-" + std::to_string(getpid()))) {
    paths_.root = directory_ / "store";
    paths_.web = directory_ / "web";
    paths_.upload = directory_ / "upload";
    fs::create_directories(paths_.root);
  }
  ~Store() {
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  const fs::path directory_;
  TimelapsePaths paths_;
  EncoderPrograms programs_;
};

/// A stopped print whose photos are all encoded.
void WriteGenerating(const Store& store, const WorkDirectory& instance, int segments) {
  const fs::path photo = store.directory_ / "photo.jpg";
  const fs::path segment = store.directory_ / "segment.ts";
  if (!fs::exists(segment)) {
    Run({store.programs_.ffmpeg, "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=1920x1080",
         "-frames:v", "1", photo});
    Run({store.programs_.ffmpeg,
         "-v",
         "error",
         "-f",
         "image2",
         "-r",
         std::to_string(kFrameRate),
         "-i",
         photo,
         "-c:v",
         "libx264",
         "-pix_fmt",
         "yuv420p",
         "-profile:v",
         "high",
         "-crf",
         "18",
         "-preset",
         "veryfast",
         segment});
  }
  fs::create_directories(instance.Path());
  std::ofstream list(instance.SegmentList());
  for (int number = 1; number <= segments; ++number) {
    const auto index = static_cast<uint32_t>(number);
    fs::copy_file(photo, instance.Photo(index), fs::copy_options::overwrite_existing);
    fs::copy_file(segment, instance.Segment(index), fs::copy_options::overwrite_existing);
    list << "file '" << instance.Segment(index).string() << "'\n";
  }
}

void JoinBare(const Store& store, const WorkDirectory& instance) {
  const fs::path film = store.directory_ / "bare.mp4";
  Run({store.programs_.ffmpeg, "-y", "-v", "error", "-f", "concat", "-safe", "0", "-i",
       instance.SegmentList(), "-c", "copy", film});
  Run({store.programs_.ffmpeg, "-v", "error", "-i", film, "-f", "null", "-"});
}

void MeasureJoining(const Options& options, Report& report) {
  const Store store(options.Text("directory", "/dev/shm"));
  const Ffmpeg encoder(store.programs_);
  const FilmStore films(store.paths_);
  const FilmMaker maker(encoder, films, NoClients, varnel::utils::SystemClock::Instance());
  std::vector<double> ours;
  std::vector<double> bare;
  for (int run = 0; run < 3; ++run) {
    (void)films.Delete(kIndex);
    WorkDirectory instance(store.paths_.root / kIndex, {.frame_rate = kFrameRate},
                           TimelapseState::kGenerating);
    WriteGenerating(store, instance, options.Number("segments", 1000));
    bare.push_back(Milliseconds([&] { JoinBare(store, instance); }));
    ours.push_back(Milliseconds([&] {
      if (!maker.Make(instance, [] { return true; }).Done())
        throw std::runtime_error("the film was not made");
    }));
  }
  report.Figure("film of many segments, all of its making, median", Percentile(ours, 0.5), "ms");
  report.AtMost("film of many segments, ratio to bare ffmpeg joining and checking",
                Percentile(ours, 0.5) / Percentile(bare, 0.5), 1.2);
}

void ListBare(const fs::path& description) {
  std::ifstream file(description);
  const json films = json::parse(file);
  struct stat info {};
  for (const json& film : films["instances"]) {
    if (::stat(film["video_path"].get_ref<const std::string&>().c_str(), &info) != 0)
      throw std::runtime_error("a film is missing");
  }
}

void MeasureListing(const Options& options, Report& report) {
  const Store store(options.Text("directory", "/dev/shm"));
  const FilmStore films(store.paths_);
  const int count = options.Number("films", 1000);
  for (int i = 0; i < count; ++i) {
    const std::string index = std::to_string(20260101000000 + i);
    const fs::path work = store.paths_.root / index;
    fs::create_directories(work);
    std::ofstream(work / "film.mp4") << "film";
    std::ofstream(work / "thumbnail.jpg") << "thumbnail";
    const json record = {{"date_index", index},
                         {"gcode_name", "benchy.gcode"},
                         {"gcode_path", "gcodes/benchy.gcode"},
                         {"timelapse_dir", work.string()},
                         {"video_path", (work / "film.mp4").string()},
                         {"thumbnail_path", (work / "thumbnail.jpg").string()},
                         {"generate_date", "2026-01-01"},
                         {"unix_timestamp_s", 1767225600 + i},
                         {"video_duration", "00:05"}};
    if (!films.Publish(record).empty()) throw std::runtime_error("a film was not added");
  }
  std::vector<double> ours;
  std::vector<double> bare;
  for (int run = 0; run < 51; ++run) {
    ours.push_back(Milliseconds([&] { (void)films.List({}); }));
    bare.push_back(Milliseconds([&] { ListBare(store.paths_.Description()); }));
  }
  report.Figure("listing films, median", Percentile(ours, 0.5), "ms");
  report.AtMost("listing films, ratio to parsing the file and one stat each",
                Percentile(ours, 0.5) / Percentile(bare, 0.5), 2);
}

/// Its photos are a word.
struct TextCamera : hal_adapter::PhotoTaker {
  hal_adapter::PhotoStatus TakePhoto(const std::string& path) override {
    std::ofstream(path) << "photo";
    return hal_adapter::PhotoStatus::kSuccess;
  }
  hal_adapter::PhotoStatus TakePhoto(const utils::FilePlace&) override {
    return hal_adapter::PhotoStatus::kNotWritable;
  }
};

void MeasureMemory(const Options& options, Report& report) {
  constexpr int kWarmUp = 500;
  Store store(options.Text("directory", "/dev/shm"));
  store.programs_.ffmpeg = store.directory_ / "ffmpeg";
  std::ofstream(store.programs_.ffmpeg) << "#!/bin/sh\nfor out; do :; done\necho x >\"$out\"\n";
  fs::permissions(store.programs_.ffmpeg, fs::perms(0755));
  TextCamera camera;
  TimelapseService service(
      {.paths = store.paths_, .programs = store.programs_, .camera = &camera, .notify = NoClients});
  service.HandleUnfinished();
  if (!service.StartNew({})) throw std::runtime_error("no time-lapse was begun");
  int64_t warm = 0;
  const int photos = options.Number("photos", 10'000);
  for (int i = 0; i < photos; ++i) {
    if (i == kWarmUp) warm = SizeOf(getpid()).resident_kib;
    if (service.TakePhoto() != TimelapsePhoto::kTaken) throw std::runtime_error("no photo");
  }
  const WorkDirectory directory(fs::read_symlink(store.paths_.Current()), {},
                                TimelapseState::kActivated);
  while (!directory.PhotosToEncode().empty()) std::this_thread::sleep_for(std::chrono::seconds(1));
  const int64_t growth = SizeOf(getpid()).resident_kib - warm;
  report.Figure("photos of a long print", photos, "");
  report.AtMost("growth of memory after the first 500, MiB", static_cast<double>(growth) / 1024, 1);
}

int Measure(const Options& options) {
  spdlog::set_level(spdlog::level::err);
  Report report;
  MeasureMemory(options, report);
  MeasureListing(options, report);
  MeasureJoining(options, report);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
