#pragma once

#include <filesystem>
#include <optional>

#include "utils/clock.h"
#include "utils/pausing_thread.h"

namespace varnel::service {

/// Writes the local time to the file "last_recorded_date" once a minute, so that after a power cut
/// the system knows when it last ran. Start() and Stop() belong to one thread.
class DateRecord {
 public:
  static constexpr std::chrono::seconds kPeriod{60};

  /// The directory is created when it is missing. The clock must outlive the task.
  explicit DateRecord(std::filesystem::path directory,
                      utils::Clock& clock = utils::SystemClock::Instance());
  ~DateRecord();
  DateRecord(const DateRecord&) = delete;
  DateRecord& operator=(const DateRecord&) = delete;

  /// A start while it runs is logged and does nothing.
  void Start();
  /// Returns when the task has ended, after the write it is in at the latest.
  void Stop();

 private:
  void Run(const utils::PausingThread::Pause& pause) const;
  void RecordGuarded() const;
  void Record() const;

  const std::filesystem::path directory_;
  utils::Clock& clock_;
  std::optional<utils::PausingThread> task_;
};

}  // namespace varnel::service
