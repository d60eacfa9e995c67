#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "utils/mutex.h"

namespace varnel::utils {

/// A fixed number of worker threads with one queue. The queue has no limit; whoever takes work from
/// outside keeps its own bound, for example by QueueSize().
class ThreadPool {
 public:
  /// The workers are named "<name>-0", "<name>-1", ...; `tag` marks their log lines.
  ThreadPool(size_t workers, const std::string& name, const char* tag);
  ~ThreadPool();
  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  /// Runs the callable with copies of the arguments on a worker; the future delivers its result or
  /// exception. Throws std::runtime_error "enqueue on stopped ThreadPool" after Stop(). Callable
  /// from any thread, also from a task.
  template <class Callable, class... Args>
  auto Post(Callable&& callable, Args&&... args)
      -> std::future<std::invoke_result_t<std::decay_t<Callable>, std::decay_t<Args>...>> {
    using Result = std::invoke_result_t<std::decay_t<Callable>, std::decay_t<Args>...>;
    std::packaged_task<Result()> task(
        [function = std::decay_t<Callable>(std::forward<Callable>(callable)),
         bound = std::tuple<std::decay_t<Args>...>(std::forward<Args>(args)...)]() mutable {
          return std::apply(std::move(function), std::move(bound));
        });
    auto future = task.get_future();
    Enqueue(Task(std::move(task)));
    return future;
  }

  /// Lets running tasks finish, joins the workers and drops the tasks that have not begun: at the
  /// end of the process nobody waits for them. Their futures report a broken promise. Not callable
  /// from a task. Repeating it is harmless.
  void Stop();

  /// Tasks that no worker has taken yet.
  size_t QueueSize() const;

 private:
  using Task = std::packaged_task<void()>;

  void Enqueue(Task task);
  void Work();
  bool TakeTask(Task& task);

  mutable Mutex mutex_;
  Condition wake_;
  std::deque<Task> tasks_ GUARDED_BY(mutex_);
  bool stopped_ GUARDED_BY(mutex_) = false;
  Mutex join_mutex_;
  std::vector<std::jthread> workers_ GUARDED_BY(join_mutex_);
};

}  // namespace varnel::utils
