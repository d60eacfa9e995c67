#pragma once

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "utils/clock.h"

namespace varnel::service {

/// Films that could not be made, and when they are tried again. One thread.
class FilmWaits {
 public:
  static constexpr std::chrono::hours kPause{1};

  bool IsDue(const std::string& index, utils::Clock::TimePoint now) const {
    const auto found = waits_.find(index);
    return found == waits_.end() || found->second <= now;
  }
  bool Has(const std::string& index) const { return waits_.contains(index); }
  /// False when it waited before.
  bool Postpone(const std::string& index, utils::Clock::TimePoint now) {
    return waits_.insert_or_assign(index, now + kPause).second;
  }
  /// Those that are gone wait no more.
  void KeepOnly(const std::vector<std::string>& indices) {
    std::erase_if(waits_, [&](const auto& wait) {
      return std::find(indices.begin(), indices.end(), wait.first) == indices.end();
    });
  }
  void Forget(const std::string& index) { waits_.erase(index); }
  /// Something has changed: all are due.
  void AllDue() {
    for (auto& [index, time] : waits_) time = {};
  }
  /// When the next one is due, an hour from now at the latest.
  utils::Clock::TimePoint NextDue(utils::Clock::TimePoint now) const {
    auto next = now + kPause;
    for (const auto& [index, time] : waits_) next = std::min(next, time);
    return next;
  }
  /// Oldest first.
  std::vector<std::string> Indices() const {
    std::vector<std::string> indices;
    for (const auto& [index, time] : waits_) indices.push_back(index);
    return indices;
  }

 private:
  std::map<std::string, utils::Clock::TimePoint> waits_;
};

}  // namespace varnel::service
