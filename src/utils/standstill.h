#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace varnel::utils {

/// When a child is given up. A slow machine reaches none of them: at the lowest priority a child
/// may wait for its turn as long as it likes.
struct WorkLimits {
  uint32_t still_ms = 0;      ///< without processor time and without a change of `progress`
  uint64_t processor_ms = 0;  ///< of processor time in all: it goes round in circles
  std::string progress;       ///< a file that grows with the work; empty: none
};

/// Whether a child still works. Its own processor time counts and that of children it waited for.
class Standstill {
 public:
  Standstill(pid_t child, WorkLimits limits);

  /// It stands still, or has used up its time. Looks at the child only now and then.
  [[nodiscard]] bool Passed();
  /// Until the next look that makes sense.
  [[nodiscard]] std::chrono::milliseconds Pause() const { return pause_; }

 private:
  using Time = std::chrono::steady_clock::time_point;
  struct Work {
    uint64_t processor_ms = 0;
    int64_t progress_bytes = -1;
    bool operator==(const Work&) const = default;
  };
  [[nodiscard]] Work Look() const;

  const pid_t child_;
  const WorkLimits limits_;
  const std::chrono::milliseconds pause_;
  Work last_;
  Time changed_;
  Time looked_;
};

}  // namespace varnel::utils
