// Watching in the local network: one round of the daemon against the bare conversion of the same
// frame, its encryption by openssl and one frame time; and the memory that many rounds take.
// Options: --directory (where clients may write), --turns, --rounds (of the memory).
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>
#include <thread>

#include "service/camera/monitor/monitor.h"
#include "support/caller.h"
#include "support/conversion.h"
#include "utils/log.h"

namespace {

using namespace varnel::bench;
using namespace varnel::service;
namespace fs = std::filesystem;
using std::chrono::steady_clock;

class Caller {
 public:
  explicit Caller(const Options& options)
      : daemon_(DaemonTarget(options)), link_(Connect(options, "monitor-bench")) {
    link_.Subscribe(daemon_.response_topic, 0);
  }

  void Call(const std::string& method, const std::string& params) {
    link_.Publish(daemon_.request_topic, RequestText(++id_, method, params));
    const std::string answer = AwaitAnswer(link_, id_, std::chrono::seconds(20));
    if (answer.find(R"("state":"success")") == std::string::npos)
      throw std::runtime_error(method + " failed: " + answer);
  }

 private:
  const Target daemon_;
  MqttLink link_;
  uint64_t id_ = 0;
};

/// When the next encrypted picture is there, which is where a round ends but for the link.
steady_clock::time_point NextRound() {
  const auto end = steady_clock::now() + std::chrono::seconds(20);
  struct stat before {};
  (void)::stat(MonitorPaths().encrypted.c_str(), &before);
  struct stat now {};
  // It is begun anew each time; a number of an inode may come again.
  const auto is_new = [&] {
    return now.st_size > 0 && (now.st_mtim.tv_sec != before.st_mtim.tv_sec ||
                               now.st_mtim.tv_nsec != before.st_mtim.tv_nsec);
  };
  while (::stat(MonitorPaths().encrypted.c_str(), &now) != 0 || !is_new()) {
    if (steady_clock::now() > end) throw std::runtime_error("no round ends");
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return steady_clock::now();
}

/// One turn: some rounds in a row.
void AddRounds(Caller& caller, std::vector<double>& rounds) {
  constexpr int kInTurn = 5;
  caller.Call("camera.start_monitor", R"({"domain":"lan","interval":0})");
  auto last = NextRound();
  for (int i = 0; i < kInTurn; ++i) {
    const auto next = NextRound();
    rounds.push_back(std::chrono::duration<double, std::milli>(next - last).count());
    last = next;
  }
  caller.Call("camera.stop_monitor", R"({"domain":"lan"})");
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the round that runs ends
}

void MeasureRounds(const Options& options, Report& report) {
  const std::string base = options.Text("directory", "/userdata") + "/monitor_bench";
  Caller caller(options);
  caller.Call("camera.take_a_photo", R"({"reason":"debug","filepath":")" + base + R"(.raw"})");
  const std::string pixel_format = PixelFormat(base + ".raw");
  std::vector<double> rounds;
  std::vector<double> bare;
  for (int turn = 0; turn < options.Number("turns", 6); ++turn) {
    AddRounds(caller, rounds);
    for (int i = 0; i < 5; ++i) {
      const auto start = steady_clock::now();
      Convert(pixel_format, base + ".raw", base + ".jpg");
      Run({"/usr/bin/openssl", "enc", "-aes-256-cbc", "-pbkdf2", "-md", "sha256", "-iter", "10000",
           "-pass", "pass:bench", "-in", base + ".jpg", "-out", base + ".enc"});
      bare.push_back(Since(start));
    }
  }
  const double round = Percentile(rounds, 0.5);
  const double reference = Percentile(bare, 0.5) + kFrameTime;
  report.Figure("round of the domain lan, median", round, "ms");
  report.Figure("bare conversion, encryption and one frame time", reference, "ms");
  report.AtMost("round of the domain lan, ratio", round / reference, 1.1);
}

/// Its photos are a word; counts them.
struct TextCamera : varnel::hal_adapter::PhotoTaker {
  varnel::hal_adapter::PhotoStatus TakePhoto(const std::string& path) override {
    std::ofstream(path) << "photo";
    ++photos;
    return varnel::hal_adapter::PhotoStatus::kSuccess;
  }
  varnel::hal_adapter::PhotoStatus TakePhoto(const varnel::utils::FilePlace&) override {
    return varnel::hal_adapter::PhotoStatus::kNotWritable;
  }
  std::atomic<int> photos = 0;
};

/// A cloud that takes all.
struct NearCloud : FileUploader {
  bool HasAccess() override { return true; }
  std::optional<std::string> Upload(const UploadRequest& request) override { return request.name; }
};

void MeasureMemory(const Options& options, Report& report) {
  constexpr int kWarmUp = 500;
  const fs::path directory = "/dev/shm/monitor-bench-" + std::to_string(getpid());
  const std::shared_ptr<void> cleanup(nullptr, [&](void*) { fs::remove_all(directory); });
  fs::create_directories(directory);
  TextCamera camera;
  Monitor monitor({.paths = {directory / "jpg", directory / "enc", directory / "web" / "jpg"},
                   .camera = &camera,
                   .uploader = std::make_shared<NearCloud>(),
                   .notify = [](const std::string&, const nlohmann::json&) {}});
  const auto start = [&](const char* domain) {
    if (!monitor.Start(domain, std::chrono::milliseconds(0)))
      throw std::runtime_error("monitoring does not start");
  };
  const auto await = [&](int photos) {
    while (camera.photos < photos) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return SizeOf(getpid()).resident_kib;
  };
  start("lan");
  start("wan");
  const int rounds = options.Number("rounds", 10'000);
  const int64_t warm = await(kWarmUp);
  const int64_t growth = await(rounds) - warm;
  report.Figure("rounds", rounds, "");
  report.AtMost("growth of memory after the first 500, MiB", static_cast<double>(growth) / 1024, 1);
}

int Measure(const Options& options) {
  spdlog::set_level(spdlog::level::err);
  Report report;
  MeasureMemory(options, report);
  MeasureRounds(options, report);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
