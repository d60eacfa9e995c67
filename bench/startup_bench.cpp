// From the daemon's start to its first answer, camera warm-up aside, against a bare connect with
// the MQTT library plus four runs of `which`. Options: --daemon PATH, --idle-reference PATH,
// --log-dir. No daemon may be running.
#include <signal.h>

#include <algorithm>
#include <stdexcept>

#include "support/caller.h"
#include "support/log_files.h"
#include "support/process.h"

namespace {

using namespace varnel::bench;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStartLimit{60};
// One line per warm-up photo. Between two of them lie one capture and one pause.
constexpr const char* kWarmUpLine = "filepath is empty, do not save to any file";
constexpr size_t kWarmUpPhotos = 10;

double AskUntilAnswered(MqttLink& link, const Target& target, uint64_t& id,
                        Clock::time_point start) {
  const uint64_t first = id + 1;
  while (Clock::now() - start < kStartLimit) {
    link.Publish(target.request_topic, RequestText(++id, target.method));
    const auto message = link.Receive(std::chrono::milliseconds(2));
    if (message && IdOf(message->payload) >= first) {
      return Since(start);
    }
  }
  throw std::runtime_error("the daemon did not answer after its start");
}

// Ten equal steps of capture and pause, of which the log shows nine.
double WarmUpTime(const std::vector<std::string>& times) {
  if (times.size() < kWarmUpPhotos) {
    return 0;
  }
  return LogMilliseconds(times.front(), times.at(kWarmUpPhotos - 1)) * kWarmUpPhotos /
         (kWarmUpPhotos - 1);
}

double DaemonStart(const Options& options, MqttLink& link, uint64_t& id) {
  const std::string from = LogTimeNow();
  const auto start = Clock::now();
  Child daemon({options.Text("daemon")});
  const double answered = AskUntilAnswered(link, DaemonTarget(options), id, start);
  daemon.Signal(SIGTERM);
  daemon.Wait();  // the log is flushed at its end
  const LogFiles log(options.Text("log-dir"), "varnel");
  return answered - WarmUpTime(log.Times(kWarmUpLine, from, LogTimeNow()));
}

double ReferenceStart(const Options& options) {
  const auto start = Clock::now();
  Run({options.Text("idle-reference"), "--once", "yes", "--host", options.Text("host", "127.0.0.1"),
       "--port", options.Text("port", "1883")});
  for (int program = 0; program < 4; ++program) {
    Run({"/usr/bin/which", "/bin/sh"});
  }
  return Since(start);
}

int Measure(const Options& options) {
  MqttLink link = Connect(options, "startup-bench");
  link.Subscribe(DaemonTarget(options).response_topic, 0);
  uint64_t id = 0;
  std::vector<double> daemon;
  std::vector<double> reference;
  for (int round = 0; round < options.Number("rounds", 5); ++round) {
    daemon.push_back(DaemonStart(options, link, id));
    reference.push_back(ReferenceStart(options));
  }
  Report report;
  // The fastest of each: the MQTT library, in which both connect, looks every 100 ms only, and that
  // hits some starts of either.
  const double ours = *std::min_element(daemon.begin(), daemon.end());
  const double theirs = *std::min_element(reference.begin(), reference.end());
  report.Figure("start-up to first answer, daemon without warm-up", ours, "ms");
  report.Figure("start-up, reference", theirs, "ms");
  report.AtMost("start-up, ratio", ours / theirs, 3);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
