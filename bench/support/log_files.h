#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace varnel::bench {

/// Now as the daemon's log writes it: local "YYYY-mm-dd HH:MM:SS.mmm". Such texts compare like
/// their times.
std::string LogTimeNow();

/// Milliseconds between two such texts.
double LogMilliseconds(const std::string& from, const std::string& to);

/// The lines of a rotating log, oldest first.
class LogFiles {
 public:
  /// Reads "<stem>.log" and "<stem>.1.log" to "<stem>.5.log".
  LogFiles(const std::filesystem::path& directory, const std::string& stem);

  /// How many lines with `text` were written from `start` to `end`.
  int64_t Count(const std::string& text, const std::string& start, const std::string& end) const;
  /// The times of those lines.
  std::vector<std::string> Times(const std::string& text, const std::string& start,
                                 const std::string& end) const;

 private:
  std::vector<std::string> lines_;
};

}  // namespace varnel::bench
