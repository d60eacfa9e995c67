#include "support/report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>

namespace varnel::bench {

Options::Options(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  for (size_t at = 0; at < words.size(); at += 2) {
    if (!words[at].starts_with("--") || at + 1 == words.size()) {
      throw std::runtime_error("expected --name value, got " + words[at]);
    }
    values_[words[at].substr(2)] = words[at + 1];
  }
}

std::string Options::Text(const std::string& name, const std::string& fallback) const {
  const auto found = values_.find(name);
  return found == values_.end() ? fallback : found->second;
}

std::string Options::Text(const std::string& name) const {
  const auto found = values_.find(name);
  if (found == values_.end()) {
    throw std::runtime_error("--" + name + " is needed");
  }
  return found->second;
}

int Options::Number(const std::string& name, int fallback) const {
  return values_.contains(name) ? Number(name) : fallback;
}

int Options::Number(const std::string& name) const {
  return std::stoi(Text(name));
}

void Report::Figure(const std::string& name, double value, const std::string& unit) {
  fmt::print("      {:<58} {:>10.3f} {}\n", name, value, unit);
  std::fflush(stdout);
}

void Report::AtMost(const std::string& name, double value, double limit) {
  Verdict(value <= limit, name, value, "at most", limit);
}

void Report::AtLeast(const std::string& name, double value, double limit) {
  Verdict(value >= limit, name, value, "at least", limit);
}

void Report::Verdict(bool good, const std::string& name, double value, const char* relation,
                     double limit) {
  failed_ |= !good;
  fmt::print("{}  {:<58} {:>10.3f} ({} {:g})\n", good ? "PASS" : "FAIL", name, value, relation,
             limit);
  std::fflush(stdout);
}

double Percentile(std::vector<double> samples, double share) {
  const auto rank = static_cast<size_t>(share * static_cast<double>(samples.size() - 1));
  const auto place = samples.begin() + static_cast<std::ptrdiff_t>(rank);
  std::nth_element(samples.begin(), place, samples.end());
  return *place;
}

int Guarded(int argc, char** argv, int (*body)(const Options& options)) {
  try {
    return body(Options(argc, argv));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 2;
  }
}

}  // namespace varnel::bench
