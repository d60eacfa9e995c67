#pragma once

#include <functional>
#include <string>

#include "support/report.h"

namespace varnel::bench {

/// Throws std::runtime_error that names what failed.
void Check(bool good, const char* what);

/// While it lives, standard output goes nowhere: messages of what is measured cost their time, but
/// do not belong into the report.
class QuietOutput {
 public:
  QuietOutput();
  ~QuietOutput();
  QuietOutput(const QuietOutput&) = delete;
  QuietOutput& operator=(const QuietOutput&) = delete;

 private:
  const int before_;
};

/// Reports the medians of two jobs that take turns.
/// @return their ratio
double MeasureInTurns(Report& report, const std::string& name, int runs,
                      const std::function<void()>& ours, const std::function<void()>& reference);

/// The same with their ratio against the limit.
void CompareInTurns(Report& report, const std::string& name, int runs, double limit,
                    const std::function<void()>& ours, const std::function<void()>& reference);

}  // namespace varnel::bench
