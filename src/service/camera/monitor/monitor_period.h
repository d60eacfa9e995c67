#pragma once

#include <optional>

#include "utils/clock.h"

namespace varnel::service {

/// How long watching goes on that nobody renews. Not for several threads.
class MonitorPeriod {
 public:
  using TimePoint = utils::Clock::TimePoint;
  struct Look {
    bool over = false;
    std::optional<int> remaining_s{};  ///< in its last seconds: how many
  };

  /// It begins anew at the next look.
  void Renew() { renewed_ = true; }
  [[nodiscard]] Look At(TimePoint now);
  /// When the next look finds it near its end, or over.
  [[nodiscard]] TimePoint NextTurn(TimePoint now) const;

 private:
  bool renewed_ = true;
  TimePoint begin_{};
};

}  // namespace varnel::service
