#include "support/turns.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <vector>

namespace varnel::bench {
namespace {

double Milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

}  // namespace

void Check(bool good, const char* what) {
  if (!good) throw std::runtime_error(std::string(what) + " failed");
}

QuietOutput::QuietOutput() : before_(dup(STDOUT_FILENO)) {
  std::fflush(stdout);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  close(null);
}

QuietOutput::~QuietOutput() {
  std::fflush(stdout);
  dup2(before_, STDOUT_FILENO);
  close(before_);
}

double MeasureInTurns(Report& report, const std::string& name, int runs,
                      const std::function<void()>& ours, const std::function<void()>& reference) {
  std::vector<double> our_times;
  std::vector<double> reference_times;
  {
    const QuietOutput quiet;
    for (int run = 0; run < runs; ++run) {
      our_times.push_back(Milliseconds(ours));
      reference_times.push_back(Milliseconds(reference));
    }
  }
  const double our_median = Percentile(our_times, 0.5);
  const double reference_median = Percentile(reference_times, 0.5);
  report.Figure(name + ", median", our_median, "ms");
  report.Figure(name + ", reference, median", reference_median, "ms");
  return our_median / reference_median;
}

void CompareInTurns(Report& report, const std::string& name, int runs, double limit,
                    const std::function<void()>& ours, const std::function<void()>& reference) {
  report.AtMost(name + ", ratio", MeasureInTurns(report, name, runs, ours, reference), limit);
}

}  // namespace varnel::bench
