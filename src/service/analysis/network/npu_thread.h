#pragma once

#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "utils/clock.h"

namespace varnel::service {

/// The one thread that calls the NPU's runtime, so that a call which never returns holds nobody
/// else. It starts with its first job. Used by one caller at a time, and by its own jobs: what they
/// ask it for is done at once.
class NpuThread {
 public:
  /// Owns all that it needs: it may outlast its caller.
  using Job = std::function<void()>;

  /// How long a caller waits for a job.
  static constexpr std::chrono::seconds kPatience{60};

  explicit NpuThread(utils::Clock& clock = utils::SystemClock::Instance());
  /// Has the waiting jobs done and joins. While a job is overdue, or in a job, the thread is left
  /// to itself: it ends when that job does.
  ~NpuThread();
  NpuThread(const NpuThread&) = delete;
  NpuThread& operator=(const NpuThread&) = delete;

  /// Has the job done and waits for it.
  /// @return false when it takes longer than kPatience (which is logged; it goes on then), and at
  /// once, without having it done, while an earlier one does
  [[nodiscard]] bool Do(Job job);
  /// The same for a job that must not be left out: while another is overdue it is done after that
  /// one, and nobody waits for it.
  void DoInAnyCase(Job job);
  /// False while a job is overdue, or one that must not be left out waits for its end.
  [[nodiscard]] bool Answers() const;
  [[nodiscard]] utils::Clock::TimePoint Now() const;

 private:
  struct Desk;
  void Start();
  [[nodiscard]] bool IsCaller() const;

  const std::shared_ptr<Desk> desk_;
  std::jthread thread_;
};

/// A share in an object that only the NPU's thread may end, for others to let go of.
template <class Object>
class OnNpu {
 public:
  /// @param thread outlives this
  OnNpu(NpuThread& thread, std::shared_ptr<Object> object)
      : thread_(thread), object_(std::move(object)) {}
  ~OnNpu() { Reset(); }
  OnNpu(const OnNpu&) = delete;
  OnNpu& operator=(const OnNpu&) = delete;

  void Reset(std::shared_ptr<Object> object = nullptr) {
    std::shared_ptr<Object> before = std::exchange(object_, std::move(object));
    if (before) thread_.DoInAnyCase([before = std::move(before)]() mutable { before.reset(); });
  }
  [[nodiscard]] const std::shared_ptr<Object>& Share() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  Object* operator->() const { return object_.get(); }
  Object& operator*() const { return *object_; }

 private:
  NpuThread& thread_;
  std::shared_ptr<Object> object_;
};

}  // namespace varnel::service
