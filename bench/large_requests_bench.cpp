// What the largest requests cost the daemon's memory: how far it grows while it serves them, and
// how much of that it still has ten seconds later. Options: --daemon-pid.
#include <fmt/format.h>

#include <stdexcept>
#include <thread>

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

void SendAll(MqttLink& link, const std::string& topic, const std::string& request) {
  for (int i = 0; i < kRequests; ++i) link.Queue(topic, request);
  link.Flush();
  for (int i = 0; i < kRequests; ++i) {
    if (!link.Receive(kAnswerLimit)) throw std::runtime_error("a large request was not answered");
  }
}

double Mebibytes(int64_t kib) {
  return static_cast<double>(kib) / 1024;
}

void MeasureLane(const Options& options, const Lane& lane, const std::string& bulky,
                 Report& report) {
  const pid_t daemon = options.Number("daemon-pid");
  MqttLink link = Connect(options, "large-requests");
  link.Subscribe(fmt::format("{}/response", lane.service), 0);
  ForgetPeak(daemon);
  const int64_t before = SizeOf(daemon).resident_kib;
  SendAll(link, fmt::format("{}/request", lane.service), LargestRequest(lane.method, bulky));
  const int64_t peak = SizeOf(daemon).peak_kib;
  std::this_thread::sleep_for(kLater);
  const int64_t later = SizeOf(daemon).resident_kib;
  const std::string row =
      fmt::format("{} requests of 1 MiB, {}, bulky {}", kRequests, lane.service, bulky);
  report.AtMost(row + ": growth at the peak, MiB", Mebibytes(peak - before), 64);
  report.AtMost(row + ": growth that stays, MiB", Mebibytes(later - before), 16);
}

int Measure(const Options& options) {
  Report report;
  for (const Lane& lane :
       {Lane{"camera", "camera.get_status"}, Lane{"system", "system.get_device_info"}}) {
    for (const char* bulky : {"params", "id"}) MeasureLane(options, lane, bulky, report);
  }
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
