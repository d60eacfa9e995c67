// What the largest requests cost the daemon's memory: how far it grows while it serves them, and
// how much of that it still has ten seconds later. Options: --daemon-pid.
#include <fmt/format.h>

#include <list>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/caller.h"
#include "support/process.h"

namespace {

using namespace varnel::bench;

constexpr int kRequests = 15;
constexpr std::chrono::seconds kAnswerLimit{30};
constexpr std::chrono::seconds kLater{10};

struct Lane {
  const char* service;
  const char* method;
};

/// Empty objects are what grows most when it is built.
std::string LargestRequest(const std::string& method, const std::string& bulky) {
  constexpr size_t kLargest = size_t{1} << 20U;
  std::string request = fmt::format(R"({{"method":"{}","{}":[{{}})", method, bulky);
  while (request.size() < kLargest - 14) request += ",{}";
  return request + (bulky == "id" ? "]}" : R"(],"id":1})");
}

/// A lane with all its large requests: they are sent, then their answers are awaited.
class Load {
 public:
  Load(const Options& options, const Lane& lane, const std::string& bulky)
      : link_(Connect(options, fmt::format("large-{}", lane.service))),
        topic_(fmt::format("{}/request", lane.service)),
        request_(LargestRequest(lane.method, bulky)) {
    link_.Subscribe(fmt::format("{}/response", lane.service), 0);
  }
  void Send() {
    for (int i = 0; i < kRequests; ++i) link_.Queue(topic_, request_);
    link_.Flush();
  }
  void AwaitAnswers() {
    for (int i = 0; i < kRequests; ++i) {
      if (!link_.Receive(kAnswerLimit))
        throw std::runtime_error("a large request was not answered");
    }
  }

 private:
  MqttLink link_;
  const std::string topic_;
  const std::string request_;
};

double Mebibytes(int64_t kib) {
  return static_cast<double>(kib) / 1024;
}

void MeasureLoads(const Options& options, const std::vector<Lane>& lanes, const std::string& bulky,
                  Report& report) {
  const pid_t daemon = options.Number("daemon-pid");
  std::list<Load> loads;
  std::string services;
  for (const Lane& lane : lanes) {
    loads.emplace_back(options, lane, bulky);
    services += fmt::format(", {}", lane.service);
  }
  ForgetPeak(daemon);
  const int64_t before = SizeOf(daemon).resident_kib;
  for (Load& load : loads) load.Send();
  for (Load& load : loads) load.AwaitAnswers();
  const int64_t peak = SizeOf(daemon).peak_kib;
  std::this_thread::sleep_for(kLater);
  const int64_t later = SizeOf(daemon).resident_kib;
  const std::string row =
      fmt::format("{} requests of 1 MiB{}, bulky {}", kRequests, services, bulky);
  report.AtMost(row + ": growth at the peak, MiB", Mebibytes(peak - before), 64);
  report.AtMost(row + ": growth that stays, MiB", Mebibytes(later - before), 16);
}

int Measure(const Options& options) {
  const Lane camera{"camera", "camera.get_status"};
  const Lane system{"system", "system.get_device_info"};
  Report report;
  for (const std::vector<Lane>& lanes : {std::vector{camera}, {system}, {camera, system}}) {
    for (const char* bulky : {"params", "id"}) MeasureLoads(options, lanes, bulky, report);
  }
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
