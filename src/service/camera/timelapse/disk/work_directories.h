#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "service/camera/timelapse/disk/work_directory.h"
#include "utils/clock.h"

namespace varnel::service {

/// The work directories of all instances: makes, finds and removes them. One thread at a time.
class WorkDirectories {
 public:
  explicit WorkDirectories(const TimelapsePaths& paths,
                           utils::Clock& clock = utils::SystemClock::Instance());

  /// A new instance in the state READY; null on failure, which is logged. The directory appears
  /// under its index only when it is complete.
  [[nodiscard]] std::shared_ptr<WorkDirectory> Create(const TimelapseSettings& settings);

  /// An instance that exists; null is logged.
  [[nodiscard]] std::shared_ptr<WorkDirectory> Open(const std::string& index) const;

  /// The instance that a continued print belongs to; empty when there is none.
  [[nodiscard]] std::string NextIndex() const;

  /// Every work directory, oldest first.
  [[nodiscard]] std::vector<std::string> Indices() const;

  /// Removes every instance that was activated and not stopped.
  void RemoveUnfinished() const;
  /// Removes directories that an interrupted creation left.
  void RemoveHalfMade() const;

 private:
  bool MakeRoot() const;
  std::string FreeIndex() const;
  bool IsTaken(const std::string& index) const;
  bool Build(const std::filesystem::path& directory, const TimelapseSettings& settings) const;
  [[nodiscard]] bool PointAt(const std::string& index) const;
  /// Takes a work directory away at once, under a name that the next start removes in any case.
  [[nodiscard]] std::error_code Discard(const std::string& index) const;
  void RemoveIfUnfinished(const std::string& index) const;

  const TimelapsePaths& paths_;
  utils::Clock& clock_;
};

}  // namespace varnel::service
