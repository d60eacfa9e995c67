#include "support/log_files.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <ctime>
#include <fstream>

namespace varnel::bench {
namespace {

constexpr size_t kTimeLength = 23;  // "2025-01-31 12:00:00.123"

double LogSeconds(const std::string& text) {
  std::tm parts{};
  strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
  parts.tm_isdst = -1;
  return static_cast<double>(std::mktime(&parts)) + std::stod(text.substr(19));
}

}  // namespace

std::string LogTimeNow() {
  const auto now = std::chrono::system_clock::now();
  const auto fraction =
      std::chrono::floor<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  return fmt::format("{:%Y-%m-%d %H:%M:%S}.{:03}",
                     fmt::localtime(std::chrono::system_clock::to_time_t(now)), fraction);
}

double LogMilliseconds(const std::string& from, const std::string& to) {
  return (LogSeconds(to) - LogSeconds(from)) * 1000;
}

LogFiles::LogFiles(const std::filesystem::path& directory, const std::string& stem) {
  for (const char* suffix : {".5.log", ".4.log", ".3.log", ".2.log", ".1.log", ".log"}) {
    std::ifstream file(directory / (stem + suffix));
    for (std::string line; std::getline(file, line);) {
      lines_.push_back(line);
    }
  }
}

int64_t LogFiles::Count(const std::string& text, const std::string& start,
                        const std::string& end) const {
  return static_cast<int64_t>(Times(text, start, end).size());
}

std::vector<std::string> LogFiles::Times(const std::string& text, const std::string& start,
                                         const std::string& end) const {
  std::vector<std::string> times;
  for (const std::string& line : lines_) {
    if (line.size() <= kTimeLength || line[0] != '[' || line.find(text) == std::string::npos) {
      continue;
    }
    if (std::string time = line.substr(1, kTimeLength); time >= start && time <= end) {
      times.push_back(std::move(time));
    }
  }
  return times;
}

}  // namespace varnel::bench
