#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "service/camera/timelapse/disk/work_directory.h"
#include "utils/clock.h"
#include "utils/mutex.h"

namespace varnel::service {

/// Takes the link "current" away if it leads to this instance, which is about to go: the link never
/// dangles.
void RemoveCurrentLink(const TimelapsePaths& paths, const std::string& index);

/// The work directories of all instances: makes, finds and removes them. Whoever opens the same one
/// shares it. Thread-safe; Publish() and SetAside...() are for one thread at a time.
class WorkDirectories {
 public:
  explicit WorkDirectories(const TimelapsePaths& paths,
                           utils::Clock& clock = utils::SystemClock::Instance());

  /// Makes a directory in the state READY that has its index, but not yet its name: it goes at the
  /// next start. Waits until an index is free. Empty on failure, which is logged.
  [[nodiscard]] std::string Build(const TimelapseSettings& settings) const;
  /// Gives it its name and makes it the one to be continued; null on failure, which is logged.
  [[nodiscard]] std::shared_ptr<WorkDirectory> Publish(const std::string& index,
                                                       const TimelapseSettings& settings);

  /// An instance that exists; null is logged.
  [[nodiscard]] std::shared_ptr<WorkDirectory> Open(const std::string& index);

  /// The instance that a continued print belongs to; empty when there is none.
  [[nodiscard]] std::string NextIndex() const;
  /// Every instance, oldest first.
  [[nodiscard]] std::vector<std::string> Indices() const;
  /// Those in this state. Nothing when they cannot be listed now, which is logged.
  [[nodiscard]] std::optional<std::vector<std::string>> IndicesIn(TimelapseState state) const;

  /// Points "current" at an instance. A failure is logged.
  void PointCurrentAt(const std::string& index) const;
  /// Takes an instance away at once; its room is given back by RemoveSetAside(). False is logged.
  bool SetAside(const std::string& index) const;
  /// The same for every instance that was activated and not stopped, but for the spared one.
  void SetAsideUnfinished(const std::set<std::string>& spared) const;
  /// The same for what an interrupted creation left. Once, before anything is made.
  void SetAsideHalfMade() const;
  /// May take long.
  void RemoveSetAside() const;

 private:
  [[nodiscard]] bool MakeRoot() const;
  [[nodiscard]] std::optional<std::vector<std::string>> ListIndices() const;
  std::string ReserveIndex() const;
  [[nodiscard]] bool Reserve(const std::string& index) const;
  [[nodiscard]] bool PointAt(const std::string& index) const;
  [[nodiscard]] bool Rename(const std::string& from, const std::string& to) const;
  void SetAsideIfUnfinished(const std::string& index) const;
  std::shared_ptr<WorkDirectory> Load(const std::string& index) const;

  const TimelapsePaths& paths_;
  utils::Clock& clock_;
  mutable utils::Mutex removal_mutex_;
  utils::Mutex mutex_;
  std::map<std::string, std::weak_ptr<WorkDirectory>> opened_ GUARDED_BY(mutex_);
};

}  // namespace varnel::service
