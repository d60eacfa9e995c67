#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>

#include "utils/clock.h"
#include "utils/mutex.h"
#include "utils/pausing_thread.h"

namespace varnel::service {

/// The last frame number that ffmpeg's progress output tells within its last twelve lines; -1 when
/// it cannot be told.
[[nodiscard]] int LastProgressFrame(const std::string& text);

/// How far a joining run is: 0 to 80 percent; 0 when there are no frames.
[[nodiscard]] int ProgressPercent(int frame, size_t total_frames);

/// Reports every two seconds how far a film is, from its start until its destruction. What is
/// reported never falls.
class GenerationProgress {
 public:
  static constexpr std::chrono::seconds kPeriod{2};

  using Report = std::function<void(int percent)>;

  /// @param file the progress output of the joining run, which is not there yet
  GenerationProgress(std::filesystem::path file, Report report, utils::Clock& clock);
  GenerationProgress(const GenerationProgress&) = delete;
  GenerationProgress& operator=(const GenerationProgress&) = delete;

  /// Segments are joined from now on, and this is where the run tells how far it is.
  void Follow(std::filesystem::path file, size_t total_frames);

 private:
  void Run(const utils::PausingThread::Pause& pause);
  void Look();

  const Report report_;
  int highest_ = 0;  // of the task's thread
  utils::Mutex mutex_;
  std::filesystem::path file_ GUARDED_BY(mutex_);
  size_t total_frames_ GUARDED_BY(mutex_) = 0;
  utils::PausingThread task_;  // last: starts when the rest is complete
};

}  // namespace varnel::service
