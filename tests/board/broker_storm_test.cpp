// The daemon under load while its broker dies and comes back again and again.
#include <gmock/gmock.h>
#include <signal.h>

#include <iostream>
#include <random>
#include <thread>

#include "board/request_ledger.h"
#include "board/run_inside.h"
#include "virtual_board/client/daemon_talk.h"

namespace varnel::board {
namespace {

using std::chrono::milliseconds;
using namespace std::chrono_literals;

constexpr size_t kBoards = 4;
constexpr int kRounds = 13;  // on each board
constexpr int kWarmUpRounds = 3;
constexpr size_t kInFlight = 16;
/// A reconnect is tried every three seconds.
constexpr auto kReturnLimit = 8s;
constexpr auto kAnswerLimit = 10s;

/// A sanitizer keeps freed memory back, by default more than any leak would show.
BootOptions StormOptions() {
  BootOptions options = DaemonOptions();
  std::string& settings = options.environment["ASAN_OPTIONS"];
  settings += std::string(settings.empty() ? "" : ":") + "quarantine_size_mb=1";
  return options;
}

/// One board with its own sequence of broker deaths.
class Storm {
 public:
  explicit Storm(unsigned seed) : random_(seed) {}

  void Run() {
    console_.Mark();
    ASSERT_TRUE(board_.StartDaemon({"-v"}));
    ASSERT_TRUE(console_.AwaitText("connected successfully", 60s));
    std::this_thread::sleep_for(1s);  // sleeps: a loss before is noticed later
    ProcessCounters before;
    for (int round = 0; round < kRounds; ++round) {
      Round(round);
      if (round + 1 == kWarmUpRounds) before = CalmCounters();
    }
    CompareWith(before, CalmCounters());
    ASSERT_TRUE(board_.SignalDaemon(SIGTERM));
    EXPECT_EQ(board_.AwaitDaemonEnd(), 0);
    ledger_.CheckAgainst(console_.Text());
  }

 private:
  int Random(int from, int to) { return std::uniform_int_distribution<int>(from, to)(random_); }

  /// Load, death of the broker at a random moment of it, and its return after a random pause.
  void Round(int round) {
    MqttLink link = LinkTo(board_, "load");
    link.Subscribe("+/response", 0);
    if (round % 4 == 3) {
      LoadBlindly(link, milliseconds(Random(0, 3000)));
    } else {
      AwaitService(link);
      Load(link, static_cast<size_t>(Random(20, 300)), round % 2 == 0);
    }
    EXPECT_TRUE(board_.KillBroker(round % 3 == 0 ? SIGTERM : SIGKILL));
    TakeTheRest(link);
    // sleeps: a broker that is away for any time
    std::this_thread::sleep_for(milliseconds(Random(0, 500)));
    ASSERT_TRUE(board_.StartBroker());
  }

  void AwaitService(MqttLink& link) {
    EXPECT_TRUE(ledger_.AwaitService(link, kReturnLimit)) << "not back after its broker";
    watched_from_ = ledger_.Size();
  }

  /// Every one of these requests is answered; the last ones only if they may all arrive.
  void Load(MqttLink& link, size_t count, bool drain) {
    while (count > 0) {
      ledger_.Send(link);
      --count;
      Receive(link, kInFlight - 1);
    }
    if (drain) Receive(link, 0);
  }

  /// Takes answers until at most so many requests wait for theirs.
  void Receive(MqttLink& link, size_t open) {
    while (ledger_.Open(watched_from_) > open) {
      const auto message = link.Receive(kAnswerLimit);
      if (!message) {
        ADD_FAILURE() << "a request was never answered, among those from " << watched_from_;
        watched_from_ = ledger_.Size();
        return;
      }
      ledger_.Take(*message);
    }
  }

  /// The daemon may not have returned yet: whatever comes back is right.
  void LoadBlindly(MqttLink& link, milliseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
      ledger_.Send(link);
      while (const auto message = link.Receive(10ms)) ledger_.Take(*message);
    }
  }

  void TakeTheRest(MqttLink& link) {
    try {
      while (const auto message = link.Receive(100ms)) ledger_.Take(*message);
    } catch (const std::runtime_error&) {  // the broker is gone
    }
  }

  /// Connected again and nothing to do.
  ProcessCounters CalmCounters() {
    MqttLink link = LinkTo(board_, "load");
    link.Subscribe("+/response", 0);
    AwaitService(link);
    Load(link, 200, true);
    return board_.DaemonCounters();
  }

  static void CompareWith(const ProcessCounters& before, const ProcessCounters& after) {
    EXPECT_GT(before.threads, 0);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
    // Loose: a sanitizer's bookkeeping grows with the load.
    EXPECT_LT(after.resident_kb, before.resident_kb + 8192);
    std::cout << "resident " << before.resident_kb << " kB, then " << after.resident_kb << " kB\n";
  }

  std::mt19937 random_;
  const Board board_{StormOptions()};
  DaemonConsole console_{board_};
  RequestLedger ledger_;
  size_t watched_from_ = 0;
};

TEST(BrokerStormTest, EveryRequestThatReachesTheDaemonRunsOnceAndIsAnsweredOnce) {
  const unsigned seed = std::random_device()();
  std::cout << "seed " << seed << "\n";
  OnThreads(kBoards, [seed](size_t board) { Storm(seed + static_cast<unsigned>(board)).Run(); });
}

}  // namespace
}  // namespace varnel::board
