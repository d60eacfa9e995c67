// Memory and wake-ups of the idle daemon against those of idle_reference. Options: --daemon-pid,
// --reference-pid, --seconds; --when, which the rows begin with.
#include <chrono>
#include <thread>

#include "support/process.h"
#include "support/report.h"

namespace {

using namespace varnel::bench;

int Measure(const Options& options) {
  const pid_t daemon = options.Number("daemon-pid");
  const pid_t reference = options.Number("reference-pid");
  const int seconds = options.Number("seconds", 30);
  const auto daemon_before = VoluntarySwitches(daemon);
  const auto reference_before = VoluntarySwitches(reference);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const auto rate = [&](pid_t pid, int64_t before) {
    return static_cast<double>(VoluntarySwitches(pid) - before) / seconds;
  };
  const double daemon_rate = rate(daemon, daemon_before);
  const double reference_rate = rate(reference, reference_before);
  const auto daemon_memory = static_cast<double>(SizeOf(daemon).resident_kib);
  const auto reference_memory = static_cast<double>(SizeOf(reference).resident_kib);

  const std::string when = options.Text("when", "idle");
  Report report;
  report.Figure(when + " resident memory, daemon", daemon_memory / 1024, "MiB");
  report.Figure(when + " resident memory, reference", reference_memory / 1024, "MiB");
  report.AtMost(when + " resident memory, ratio", daemon_memory / reference_memory, 3);
  report.Figure(when + " wake-ups per second, daemon", daemon_rate, "1/s");
  report.Figure(when + " wake-ups per second, reference", reference_rate, "1/s");
  report.AtMost(when + " wake-ups per second, ratio", daemon_rate / reference_rate, 2);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
