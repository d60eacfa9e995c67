// Termination signals at any moment of the daemon's life.
#include <gmock/gmock.h>
#include <signal.h>

#include <atomic>
#include <iostream>
#include <random>
#include <thread>

#include "board/request_ledger.h"
#include "board/run_inside.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "virtual_board/client/daemon_talk.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;
using namespace std::chrono_literals;

constexpr size_t kBoards = 10;
constexpr int kMoments = 100;
/// From the later of the signal and the end of the start sequence to the end of the process.
constexpr auto kShutdownLimit = 4s;
constexpr const char* kStarted = "Connecting to MQTT broker at ";

enum class Situation { kStarting, kBrokerAbsent, kLoaded };

struct Moment {
  Situation situation;
  milliseconds delay;  ///< from the beginning of the situation to the signal
};

BootOptions WithConverter(const std::string& converter) {
  BootOptions options = DaemonOptions();
  options.binds.emplace_back(converter, "/usr/bin/ffmpeg");
  return options;
}

std::vector<std::string> Names(const std::vector<ProcessInfo>& processes) {
  std::vector<std::string> names;
  names.reserve(processes.size());
  for (const ProcessInfo& process : processes) names.push_back(process.name);
  return names;
}

/// Sent and not handled yet: another one of its kind would become one with it.
bool IsPending(pid_t pid, int signal) {
  const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find("ShdPnd:");
  if (at == std::string::npos) return false;
  return (std::stoull(status.substr(at + 7), nullptr, 16) >> (signal - 1) & 1) != 0;
}

/// A board whose daemon is started and ended again and again.
class MortalDaemon {
 public:
  explicit MortalDaemon(const std::string& converter) : board_(WithConverter(converter)) {}

  void LiveAndDie(const Moment& moment) {
    SCOPED_TRACE(testing::Message() << "situation " << static_cast<int>(moment.situation) << ", "
                                    << moment.delay.count() << " ms");
    Begin(moment.situation);
    if (moment.situation == Situation::kLoaded) {
      Load(moment.delay);
    } else {
      std::this_thread::sleep_for(moment.delay);  // sleeps: the moment under test
    }
    const auto signalled = system_clock::now();
    ASSERT_TRUE(board_.SignalDaemon(SIGTERM));
    EXPECT_EQ(board_.AwaitDaemonEnd(25s), 0) << console_.Tail();
    const auto ended = system_clock::now();
    const auto started = console_.TimeOf(kStarted);
    ASSERT_TRUE(started) << console_.Tail();
    EXPECT_LE(ended - std::max(signalled, *started), kShutdownLimit) << console_.Tail();
    ExpectNothingLeft();
  }

  /// What it ended with.
  std::optional<int> DieTwice(Situation situation, int first, int second) {
    Begin(situation);
    if (situation == Situation::kLoaded) Load(300ms);
    if (first == SIGKILL) {  // a camera that has just come shows some frames first
      EXPECT_TRUE(test::Eventually([&] { return !Leftovers().empty(); }));
    }
    EXPECT_TRUE(board_.SignalDaemon(first));
    if (first == SIGKILL) return AwaitEnd();
    const pid_t pid = board_.DaemonPid();
    EXPECT_TRUE(test::Eventually([&] { return !IsPending(pid, first); }, 5s));
    EXPECT_TRUE(board_.SignalDaemon(second));
    return AwaitEnd();
  }
  /// Of photos and films that were being made.
  [[nodiscard]] std::string Leftovers() const {
    return board_.Shell("find / -name '.varnel-*' -not -path '/proc/*'").out;
  }

 private:
  void Begin(Situation situation) {
    const bool broker = situation != Situation::kBrokerAbsent;
    if (broker != broker_runs_) {
      ASSERT_TRUE(broker ? board_.StartBroker() : board_.KillBroker());
      broker_runs_ = broker;
    }
    // Only a camera that is there makes the start sequence long.
    board_.SetCameraFaults(situation == Situation::kStarting ? "" : "unplug");
    console_.Mark();
    ASSERT_TRUE(board_.StartDaemon({"-v"}));
    ASSERT_TRUE(console_.AwaitText("Signal handler initialized", 60s));
    if (situation == Situation::kStarting) return;
    ASSERT_TRUE(console_.AwaitText(broker ? "connected successfully" : kStarted, 60s));
    board_.SetCameraFaults("");
  }

  /// Requests and, while they run, a photo whose conversion does not end.
  void Load(milliseconds time) {
    MqttLink link = LinkTo(board_, "load");
    link.Subscribe("+/response", 0);
    RequestLedger ledger;
    ASSERT_TRUE(ledger.AwaitService(link, 10s));  // what comes before it has subscribed is lost
    link.Publish("camera/request",
                 R"({"jsonrpc":"2.0","id":"photo","method":"camera.take_a_photo",)"
                 R"("params":{"reason":"debug","filepath":"/userdata/p.jpg"}})");
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
      for (const char* topic : RequestLedger::kTopics) ledger.Probe(link, topic);
      while (const auto message = link.Receive(2ms)) {
        ASSERT_NE(nlohmann::json::parse(message->payload).at("id"), "photo") << console_.Tail();
        ledger.Take(*message);
      }
    }
  }

  std::optional<int> AwaitEnd() {
    const auto status = board_.AwaitDaemonEnd(2s);
    ExpectNothingLeft();
    return status;
  }

  void ExpectNothingLeft() {
    const size_t expected = broker_runs_ ? 2 : 1;
    std::vector<ProcessInfo> left;
    EXPECT_TRUE(
        test::Eventually([&] { return (left = board_.Processes()).size() == expected; }, 1s))
        << testing::PrintToString(Names(left)) << "\n"
        << console_.Tail();
  }

  const Board board_;
  DaemonConsole console_{board_};
  bool broker_runs_ = true;
};

std::vector<Moment> RandomMoments(unsigned seed) {
  constexpr int kLongest[] = {6500, 13000, 2500};  // by situation, in milliseconds
  std::mt19937 random(seed);
  std::vector<Moment> moments;
  for (int i = 0; i < kMoments; ++i) {
    std::uniform_int_distribution<int> delay(0, kLongest[i % 3]);
    moments.push_back({static_cast<Situation>(i % 3), milliseconds(delay(random))});
  }
  return moments;
}

class DaemonShutdownTest : public testing::Test {
 protected:
  const test::TempDir host_;
  /// One left behind is seen. Written before there are threads whose children would hold it open.
  const std::string endless_converter_ = host_.WriteScript("ffmpeg", "exec sleep 1000");
};

TEST_F(DaemonShutdownTest, AHundredRandomMomentsAllEndInOrder) {
  const unsigned seed = std::random_device()();
  std::cout << "seed " << seed << "\n";
  const std::vector<Moment> moments = RandomMoments(seed);
  std::atomic<size_t> next{0};
  OnThreads(kBoards, [&](size_t) {
    MortalDaemon daemon(endless_converter_);
    for (size_t i = next++; i < moments.size(); i = next++) daemon.LiveAndDie(moments[i]);
  });
}

TEST_F(DaemonShutdownTest, ASecondSignalEndsItAtOnce) {
  MortalDaemon daemon(endless_converter_);
  EXPECT_EQ(daemon.DieTwice(Situation::kStarting, SIGTERM, SIGTERM), 128 + SIGTERM);
  EXPECT_EQ(daemon.DieTwice(Situation::kStarting, SIGINT, SIGINT), 128 + SIGINT);
  EXPECT_EQ(daemon.DieTwice(Situation::kBrokerAbsent, SIGHUP, SIGTERM), 128 + SIGTERM);
  EXPECT_THAT(daemon.DieTwice(Situation::kLoaded, SIGTERM, SIGTERM),
              testing::AnyOf(0, 128 + SIGTERM));
}

TEST_F(DaemonShutdownTest, AKilledDaemonTakesItsProgramsWithItAndThePhotoLeavesNothing) {
  MortalDaemon daemon(endless_converter_);
  EXPECT_EQ(daemon.DieTwice(Situation::kLoaded, SIGKILL, 0), 128 + SIGKILL);
  EXPECT_NE(daemon.Leftovers(), "") << "the converter was at work";
  daemon.LiveAndDie({Situation::kBrokerAbsent, 100ms});
  EXPECT_EQ(daemon.Leftovers(), "") << "cleared away at the start";
  daemon.LiveAndDie({Situation::kLoaded, 2500ms});
  EXPECT_EQ(daemon.Leftovers(), "") << "and at the end of one that ended in order";
}

}  // namespace
}  // namespace varnel::board
