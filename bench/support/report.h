#pragma once

#include <map>
#include <string>
#include <vector>

namespace varnel::bench {

/// Program options of the form "--name value".
class Options {
 public:
  /// Throws std::runtime_error for anything else.
  Options(int argc, char** argv);
  std::string Text(const std::string& name, const std::string& fallback) const;
  /// Throws when the option was not given.
  std::string Text(const std::string& name) const;
  int Number(const std::string& name, int fallback) const;
  int Number(const std::string& name) const;

 private:
  std::map<std::string, std::string> values_;
};

/// Prints figures and verdicts line by line and keeps the exit status.
class Report {
 public:
  void Figure(const std::string& name, double value, const std::string& unit);
  void AtMost(const std::string& name, double value, double limit);
  void AtLeast(const std::string& name, double value, double limit);
  /// 1 when a verdict was bad.
  int ExitStatus() const { return failed_ ? 1 : 0; }

 private:
  void Verdict(bool good, const std::string& name, double value, const char* relation,
               double limit);

  bool failed_ = false;
};

/// The value below which `share` (0 to 1) of the samples lie. There must be at least one.
double Percentile(std::vector<double> samples, double share);

/// Runs a benchmark's body: its exit status, or 2 with the exception's text on standard error.
int Guarded(int argc, char** argv, int (*body)(const Options& options));

}  // namespace varnel::bench
