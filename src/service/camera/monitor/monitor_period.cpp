#include "service/camera/monitor/monitor_period.h"

#include <utility>

namespace varnel::service {
namespace {

using std::chrono::seconds;

constexpr seconds kWarned{311};
constexpr seconds kOver{361};

}  // namespace

MonitorPeriod::Look MonitorPeriod::At(TimePoint now) {
  if (std::exchange(renewed_, false)) begin_ = now;
  const auto passed = now - begin_;
  if (passed >= kOver) return {.over = true};
  if (passed < kWarned) return {};
  const seconds remaining = kOver - seconds(1) - std::chrono::floor<seconds>(passed);
  return {.remaining_s = static_cast<int>(remaining.count())};
}

MonitorPeriod::TimePoint MonitorPeriod::NextTurn(TimePoint now) const {
  return begin_ + (now - begin_ < kWarned ? kWarned : kOver);
}

}  // namespace varnel::service
