#include "utils/thread_pool.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <array>
#include <latch>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/log_capture.h"
#include "utils/thread.h"
#include "utils/turn.h"

namespace varnel::utils {
namespace {

using namespace std::chrono_literals;

std::string ThreadName() {
  std::array<char, 16> name{};
  pthread_getname_np(pthread_self(), name.data(), name.size());
  return name.data();
}

TEST(ThreadPoolTest, DeliversResultsExceptionsAndMoveOnlyArguments) {
  ThreadPool pool(2, "pool", "TEST");
  EXPECT_EQ(pool.Post([](int a, int b) { return a - b; }, 7, 3).get(), 4);
  auto moved = pool.Post([](std::unique_ptr<int> p) { return *p; }, std::make_unique<int>(5));
  EXPECT_EQ(moved.get(), 5);
  auto failed = pool.Post([] { throw std::invalid_argument("no"); });
  EXPECT_THROW(failed.get(), std::invalid_argument);
  EXPECT_THAT(pool.Post(ThreadName).get(), testing::MatchesRegex("pool-[01]"));
}

TEST(ThreadPoolTest, AllWorkersRunAtOnce) {
  ThreadPool pool(4, "pool", "TEST");
  std::latch together(4);
  std::vector<std::future<void>> done;
  done.reserve(4);
  for (int i = 0; i < 4; ++i) done.push_back(pool.Post([&] { together.arrive_and_wait(); }));
  for (auto& future : done) future.get();
}

TEST(ThreadPoolTest, StopFinishesWhatRunsDropsWhatWaitsAndRefusesMore) {
  ThreadPool pool(1, "pool", "TEST");
  std::latch entered(1);
  std::latch release(1);
  auto running = pool.Post([&] {
    entered.count_down();
    release.wait();
    return 1;
  });
  auto waiting = pool.Post([] { return 2; });
  entered.wait();
  EXPECT_EQ(pool.QueueSize(), 1U);
  const std::jthread stopper([&] { pool.Stop(); });
  EXPECT_THROW(waiting.get(), std::future_error);  // dropped before the running one ends
  release.count_down();
  pool.Stop();
  EXPECT_EQ(running.get(), 1);
  EXPECT_THROW((void)pool.Post([] {}), std::runtime_error);
}

TEST(SpawnGuardedTest, ThreadIsNamedDeafToTerminationAndItsExceptionIsLogged) {
  const test::LogCapture log;
  std::string name;
  sigset_t blocked;
  SpawnGuarded("a-very-long-thread-name", "TEST", [&] {
    name = ThreadName();
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    throw std::runtime_error("broken");
  }).join();
  EXPECT_EQ(name, "a-very-long-thr");
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) EXPECT_TRUE(sigismember(&blocked, signal));
  EXPECT_THAT(log.Text(), testing::HasSubstr("ended: broken"));
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  EXPECT_FALSE(sigismember(&blocked, SIGTERM));
}

TEST(TurnTest, GoesToWhoCameFirst) {
  test::FakeClock clock;
  Turn turn(clock);
  std::string order;
  const auto take = [&](char name, std::chrono::milliseconds limit) {
    const Turn::Holder holder(turn, limit);
    order += holder ? name : '-';
  };
  std::vector<std::jthread> callers;
  {
    const Turn::Holder first(turn, 0ms);
    for (const char name : {'b', 'c', 'd'}) {
      const auto limit = name == 'c' ? 1'000ms : 60'000ms;
      callers.emplace_back(take, name, limit);
      clock.AwaitWaiters(name - 'a');
    }
    clock.Advance(2'000ms);
    callers[1].join();
  }
  take('a', 60'000ms);
  callers.clear();
  EXPECT_EQ(order, "-bda") << "even when the last holder asks again at once";
}

}  // namespace
}  // namespace varnel::utils
