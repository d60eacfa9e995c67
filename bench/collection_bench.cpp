// Collecting logs for diagnosis: the masking of secrets against gzip of the same bytes; a
// collection against what people would type; its disk, its memory, and photos beside it. Options:
// --directory (of the disk), --megabytes, --runs, --photos.
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

#include "service/system/collection/scrub/secret_scrubber.h"
#include "service/system/collection/sysinfo_collector.h"
#include "support/caller.h"
#include "support/process.h"
#include "support/turns.h"
#include "utils/log.h"

namespace {

using namespace varnel::bench;
using namespace varnel::service;
namespace fs = std::filesystem;

constexpr size_t kPiece = 65'536;
constexpr size_t kMegabyte = size_t{1} << 20U;

/// As the programs of a printer write them, with a secret now and then.
std::string LogLines(size_t bytes) {
  std::mt19937 random(11);
  std::string text;
  while (text.size() < bytes) {
    const auto n = [&] { return std::to_string(random() % 100'000); };
    text += "[2026-11-22 21:37:" + n() +
            "] [varnel] [info] [JRPCS:112] Receive normal request: id is \"" + n() +
            "\", method is camera.take_a_photo\n";
    text += "Stats " + n() + ".1: gcodein=" + n() + " mcu: mcu_awake=0." + n() +
            " mcu_task_avg=0.0000" + n() + " bytes_write=" + n() + " bytes_read=" + n() +
            " extruder: target=210 temp=" + n() + ".9 pwm=0." + n() + "\n";
    text +=
        "2026-11-22 21:37:03," + n() +
        " [websockets.py:handle()] - 127.0.0.1 \"GET /printer/objects/query?heater_bed&toolhead=" +
        n() + " HTTP/1.1\" 200 - {\"status\": {\"toolhead\": {\"position\": [" + n() + ", " + n() +
        "]}}}\n";
    if (random() % 50 == 0)
      text += "login user=ann password=abc" + n() + " ok=1 Bearer abcdef" + n() + "\n";
  }
  return text;
}

class Work {
 public:
  explicit Work(const fs::path& parent)
      : root_(parent / ("collection-bench-" + std::to_string(getpid()))) {
    fs::create_directories(root_ / "storage");
    fs::create_directories(root_ / "hand/content");
    fs::create_directories(root_ / "source");
    Run({"/usr/bin/openssl", "genpkey", "-quiet", "-algorithm", "RSA", "-out", Path("key.pem")});
    Run({"/usr/bin/openssl", "pkey", "-in", Path("key.pem"), "-pubout", "-out",
         Path("public.pem")});
  }
  ~Work() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

  fs::path Path(const std::string& name) const { return root_ / name; }
  void WriteSource(size_t megabytes, const std::string& lines) const {
    std::ofstream file(Path("source/varnel.log"), std::ios::binary);
    for (size_t written = 0; written < megabytes * kMegabyte; written += lines.size())
      file << lines;
    if (!file.flush()) throw std::runtime_error("the disk is full");
  }

 private:
  const fs::path root_;
};

CollectorSetup SetupOf(const Work& work) {
  CollectorSetup setup;
  setup.storage = work.Path("storage");
  setup.public_key = work.Path("public.pem");
  setup.password_file = work.Path("password");
  setup.makers_items = {{{"category", "basic"},
                         {"type", "dir"},
                         {"source", work.Path("source").string()},
                         {"output", "logs.tar.gz"}}};
  setup.identity = [] { return std::make_shared<const varnel::hal_adapter::DeviceIdentity>(); };
  setup.platform_data = [](uint32_t, const std::string&) {
    return varnel::hal_adapter::HalStatus::kSuccess;
  };
  return setup;
}

/// In a thread of its own, since it lowers its priority. The size of the archive.
uint64_t Collect(const Work& work, SourceDesk& desk) {
  CollectorSetup setup = SetupOf(work);
  setup.desk = &desk;
  setup.program_directories = {};  // what programs print takes no time
  uint64_t bytes = 0;
  std::jthread([&] {
    SysinfoCollector collector(setup, {.basic = true, .archive_name = "a.tar.gz"},
                               [] { return false; });
    const auto archive = collector.Collect();
    if (archive) bytes = fs::file_size(*archive);
  }).join();
  Check(bytes > 0, "the collection");
  return bytes;
}

void ByHand(const Work& work) {
  const std::string content = work.Path("hand/content");
  const std::string inner = work.Path("hand/sysinfo.tar.gz");
  Run({"/usr/bin/tar", "zhcvf", content + "/logs.tar.gz", "-C", work.Path("source"), "."});
  Run({"/usr/bin/tar", "zhcvf", inner, "-C", content, "."});
  Run({"/usr/bin/openssl", "enc", "-aes-256-cbc", "-pbkdf2", "-md", "sha256", "-pass", "pass:bench",
       "-in", inner, "-out", work.Path("hand/content.enc")});
  Run({"/usr/bin/tar", "zcvf", work.Path("hand/a.tar.gz"), "-C", work.Path("hand"), "content.enc"});
}

uint64_t BytesIn(const fs::path& directory) {
  uint64_t bytes = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator it(directory, error), end; !error && it != end;
       it.increment(error)) {
    const auto size = it->is_regular_file(error) ? it->file_size(error) : 0;
    if (!error) bytes += size;
    error.clear();
  }
  return bytes;
}

/// The most that lay in a directory while this object lived.
class DiskWatch {
 public:
  explicit DiskWatch(fs::path directory)
      : thread_([this, directory = std::move(directory)](const std::stop_token& stop) {
          while (!stop.stop_requested()) {
            most_ = std::max(most_.load(), BytesIn(directory));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
          }
        }) {}
  uint64_t Most() const { return most_; }

 private:
  std::atomic<uint64_t> most_ = 0;
  std::jthread thread_;
};

double PeakMebibytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;
}

void MeasureScrubbing(const Options& options, Report& report) {
  const auto megabytes = static_cast<size_t>(options.Number("scrubbed", 256));
  const std::string lines = LogLines(16 * kMegabyte);
  const fs::path file = fs::path("/dev/shm") / ("scrub-bench-" + std::to_string(getpid()));
  {
    std::ofstream out(file, std::ios::binary);
    for (size_t written = 0; written < megabytes * kMegabyte; written += lines.size()) out << lines;
  }
  HeldValues held;
  for (char c = 'a'; c < 'k'; ++c) held.Add(std::string(32, c));
  const auto scrub = [&] {
    size_t bytes = 0;
    SecretScrubber scrubber(held, Masking::kShort,
                            [&](std::string_view piece) { bytes += piece.size(); });
    std::ifstream in(file, std::ios::binary);
    std::string piece(kPiece, '\0');
    while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())) || in.gcount() > 0)
      scrubber.Feed(std::string_view(piece).substr(0, static_cast<size_t>(in.gcount())));
    scrubber.Finish();
    Check(scrubber.Masked() > 0 && bytes > 0, "scrubbing");
  };
  CompareInTurns(report, "scrubbing against gzip", options.Number("runs", 3), 0.3, scrub, [&] {
    Run({"/usr/bin/gzip", "-c", file});
  });
  fs::remove(file);
}

double Photo(MqttLink& link, const Target& daemon, uint64_t id) {
  const auto start = std::chrono::steady_clock::now();
  link.Publish(daemon.request_topic,
               RequestText(id, "camera.take_a_photo",
                           R"({"reason":"debug","filepath":"/tmp/collection_bench.jpg"})"));
  const std::string answer = AwaitAnswer(link, id, std::chrono::seconds(15));
  Check(answer.find(R"("state":"success")") != std::string::npos, "a photo");
  return Since(start);
}

void MeasurePhotos(const Options& options, const Work& work, SourceDesk& desk, Report& report) {
  const Target daemon = DaemonTarget(options);
  MqttLink link = Connect(options, "collection-bench");
  link.Subscribe(daemon.response_topic, 0);
  uint64_t id = 0;
  std::vector<double> idle;
  std::vector<double> beside;
  for (int i = 0; i < options.Number("photos", 40); ++i) idle.push_back(Photo(link, daemon, ++id));
  std::atomic<bool> done = false;
  const std::jthread collecting([&] {
    (void)Collect(work, desk);
    done = true;
  });
  while (!done) beside.push_back(Photo(link, daemon, ++id));
  report.Figure("photo, p95, idle", Percentile(idle, 0.95), "ms");
  report.Figure("photo, p95, while collecting", Percentile(beside, 0.95), "ms");
  report.AtMost("photo while collecting, ratio", Percentile(beside, 0.95) / Percentile(idle, 0.95),
                1.25);
}

int Measure(const Options& options) {
  spdlog::set_level(spdlog::level::off);
  Report report;
  MeasureScrubbing(options, report);
  const Work work(options.Text("directory", "/userdata"));
  SourceDesk desk;
  const std::string lines = LogLines(16 * kMegabyte);
  work.WriteSource(64, lines);
  (void)Collect(work, desk);
  const double peak = PeakMebibytes();
  const auto megabytes = static_cast<size_t>(options.Number("megabytes", 512));
  work.WriteSource(megabytes, lines);
  uint64_t archive = 0;
  {
    const DiskWatch watch(work.Path("storage"));
    archive = Collect(work, desk);
    const auto archives =
        (static_cast<double>(watch.Most()) - static_cast<double>(BytesIn(work.Path("source")))) /
        static_cast<double>(archive);
    report.AtMost("disk: archives besides the largest source", archives, 2.2);
  }
  report.AtMost("peak memory against that of 64 MB", PeakMebibytes() / peak, 1.1);
  CompareInTurns(
      report, "collection against tar, tar, openssl, tar", options.Number("runs", 3), 1.5,
      [&] { (void)Collect(work, desk); }, [&] { ByHand(work); });
  if (options.Number("photos", 40) > 0) MeasurePhotos(options, work, desk, report);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
