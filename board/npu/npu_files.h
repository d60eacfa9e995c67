#pragma once

#include <filesystem>
#include <string>

namespace varnel::board {

/// What the virtual NPU counts.
struct NpuCounters {
  int contexts = 0;          ///< networks that are loaded
  int highest_contexts = 0;  ///< most that ever were at one time
  int inits = 0;             ///< networks ever loaded
  int runs = 0;
  int outputs = 0;  ///< outputs handed out and not released
};

/// What the virtual NPU of a board shares with whoever drives that board: one directory, which both
/// sides see. Without the directory nothing is shared.
///
/// - `faults`      lines "fail FUNCTION CODE [COUNT [SKIP]]", like those of the cameras: the
/// function returns the negative code; and "stall": a run does not return as long as the line is
/// there
/// - `state.json`  the counters of the process that used the NPU last
class NpuFiles {
 public:
  explicit NpuFiles(std::filesystem::path directory) : directory_(std::move(directory)) {}

  [[nodiscard]] std::filesystem::path Faults() const { return directory_ / "faults"; }
  [[nodiscard]] std::filesystem::path State() const { return directory_ / "state.json"; }

  /// The code that a call of `function` must fail with, 0 for none. A counted fault is used up.
  [[nodiscard]] int TakeFault(const std::string& function) const;
  [[nodiscard]] bool Stalls() const;
  void WriteState(const NpuCounters& counters) const;

 private:
  std::filesystem::path directory_;
};

}  // namespace varnel::board
