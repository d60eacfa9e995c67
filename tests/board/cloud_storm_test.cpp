// Boards whose cloud fails them again and again, in any order: afterwards each of them is back.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "board/cloud_board.h"
#include "support/eventually.h"

namespace varnel::board {
namespace {

using nlohmann::json;

constexpr size_t kBoards = 4;
constexpr std::chrono::seconds kComesBack{90};

/// How many sequences of faults there are; VARNEL_CLOUD_STORMS.
size_t Storms() {
  const char* wish = std::getenv("VARNEL_CLOUD_STORMS");
  return wish == nullptr ? kBoards : std::strtoul(wish, nullptr, 10);
}

/// The faults of all boards, in one file.
class Faults {
 public:
  /// Empty: none for this board.
  void Set(const std::string& board, const std::string& line) {
    const std::lock_guard lock(mutex_);
    lines_[board] = line;
    std::string text;
    for (const auto& [name, one] : lines_) text += one;
    TheCloud().SetFaults(text);
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> lines_;  // mutex_
};

/// Looks all the time how many connections to the cloud's broker a board has at once.
class LinkWatch {
 public:
  explicit LinkWatch(const Board& board)
      : table_("/proc/" + std::to_string(board.Processes().front().pid) + "/net/tcp"),
        thread_([this](const std::stop_token& stop) { Watch(stop); }) {}
  [[nodiscard]] size_t Most() const { return most_; }

 private:
  using Ends = std::set<std::string>;

  void Watch(const std::stop_token& stop) {
    Ends before;
    for (; !stop.stop_requested(); std::this_thread::sleep_for(kPause)) {  // sleeps: a watch
      const Ends now = OurEnds();
      // The kernel's table is no snapshot: what is read once may be gone at the end of the reading.
      const auto stay = static_cast<size_t>(std::count_if(
          now.begin(), now.end(), [&](const std::string& end) { return before.contains(end); }));
      most_ = std::max<size_t>(most_, stay);
      before = now;
    }
  }
  [[nodiscard]] Ends OurEnds() const {
    std::ifstream table(table_);
    Ends ends;
    for (std::string line; std::getline(table, line);) {
      std::string number;
      std::string local;
      std::string remote;
      std::string state;
      std::istringstream(line) >> number >> local >> remote >> state;
      if (remote.ends_with(":22B3") && state == "01") ends.insert(local);  // 8883, established
    }
    return ends;
  }

  static constexpr std::chrono::milliseconds kPause{5};
  const std::string table_;
  std::atomic<size_t> most_ = 0;
  std::jthread thread_;  // last: it uses the rest
};

/// KIND WHERE, the device's name, and an argument.
std::string RandomFault(const std::string& device, std::mt19937& random) {
  const auto below = [&](unsigned limit) { return random() % limit; };
  const std::vector<std::pair<std::string, std::string>> faults{
      {"status /api/*", "503"},
      {"status /api/*", "401"},
      {"code /api/*", "500"},
      {"code /api/device/update", "401"},
      {"body /api/*", "<html>"},
      {"cut /api/*", std::to_string(below(60))},
      {"delay /api/*", "3"},
      {"endless-headers /api/*", ""},
      {"revoke /api/*", ""},
      {"refuse api", ""},
      {"refuse broker", ""},
      {"silence api", ""},
      {"silence broker", ""},
      {"certificate api", "expired"},
      {"certificate broker", "foreign"},
      {"reset *", std::to_string(below(6000))},
      {"stall *", std::to_string(below(6000))},
      {"rate *", std::to_string(50 + below(500))},
      {"no-subscribe *", ""},
      {"no-names *", ""},
  };
  const auto& [what, argument] = faults.at(below(static_cast<unsigned>(faults.size())));
  return what + " device=" + device + (argument.empty() ? "" : " " + argument) + "\n";
}

class CloudStormTest : public testing::Test {
 protected:
  ~CloudStormTest() override { TheCloud().SetFaults(""); }

  /// Lets the board meet one fault; false when nothing came its way.
  bool MeetOne(CloudBoard& board, std::mt19937& random) {
    const std::string line = RandomFault(board.serial, random);
    const double before = Now();
    faults_.Set(board.serial, line);
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(500 + random() % 3000);
    while (std::chrono::steady_clock::now() < end) {
      (void)board.rpc.Post("mqtt_agent.refresh_auth_code", nullptr, "mqtt_agent/request");
      (void)board.client.Call("camera.get_status", nullptr, std::chrono::milliseconds(300));
    }
    if (random() % 8 == 0) TheCloud().Tell({"take-over", board.serial});
    if (random() % 8 == 0) board.KillAndStart();
    faults_.Set(board.serial, "");
    return HasMetOne(board.serial, before);
  }

  static double Now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration<double>(now).count();
  }
  static bool HasMetOne(const std::string& device, double since) {
    return TheCloud()
        .AwaitEntry(
            [&](const json& entry) {
              return entry.value("time", 0.0) >= since && entry.value("board", "") == device &&
                     (entry.contains("fault") || entry.at("event") == "refused" ||
                      entry.at("event") == "name_asked");
            },
            std::chrono::milliseconds(1))
        .has_value();
  }

  void RunSequence(CloudBoard& board, unsigned seed) {
    SCOPED_TRACE(testing::Message() << board.serial << ", seed " << seed);
    std::mt19937 random(seed);
    const size_t count = 5 + random() % 16;
    for (size_t met = 0, tried = 0; met < count && tried < 3 * count; ++tried)
      met += MeetOne(board, random) ? 1U : 0U;
    const auto answer = board.client.CallUntilAnswered("camera.get_status", nullptr, kComesBack);
    EXPECT_FALSE(answer.is_null()) << "not back";
    EXPECT_TRUE(board.Await("connected"));
  }

  static std::string Descriptors(const CloudBoard& board) {
    return board.board.Shell("ls -l /proc/$(pidof varnel)/fd").out;
  }

  /// All sequences that this board gets to.
  void Weather(CloudBoard& board, std::atomic<unsigned>& next, unsigned first) {
    board.Join();
    const LinkWatch links(board.board);
    // The first storm makes what is made once.
    RunSequence(board, first + next++);
    const ProcessCounters before = board.board.DaemonCounters();
    const std::string open = Descriptors(board);
    while (next < Storms()) RunSequence(board, first + next++);
    // Look-ups that nobody waits for any more hold theirs until the name server's time is over.
    const auto is_as_before = [&] {
      const ProcessCounters after = board.board.DaemonCounters();
      return after.threads <= before.threads + 8 && after.descriptors <= before.descriptors + 8 &&
             after.resident_kb <= before.resident_kb + 65'536;
    };
    EXPECT_TRUE(test::Eventually(is_as_before, std::chrono::seconds(60)))
        << board.serial << '\n'
        << open << Descriptors(board);
    EXPECT_EQ(links.Most(), 1U) << board.serial;
  }

  using Boards = std::vector<std::unique_ptr<CloudBoard>>;

  /// All boards come back from it with the certificates that they have.
  static void LoseTheBroker(const Boards& boards) {
    constexpr std::chrono::seconds kAway{10};
    const size_t fetched = TheCloud().Requests("/api/device/getMqttCert").size();
    TheCloud().KillBroker();
    std::this_thread::sleep_for(kAway);  // sleeps: so long nobody is there
    TheCloud().StartBroker();
    for (const auto& board : boards) {
      EXPECT_FALSE(
          board->client.CallUntilAnswered("camera.get_status", nullptr, kComesBack).is_null());
    }
    EXPECT_EQ(TheCloud().Requests("/api/device/getMqttCert").size(), fetched);
  }

  Faults faults_;
};

TEST_F(CloudStormTest, EachBoardComesBackAndHoldsNoMoreThanBefore) {
  Boards boards;
  for (size_t i = 0; i < kBoards; ++i) boards.push_back(std::make_unique<CloudBoard>());
  std::atomic<unsigned> next = 0;
  const unsigned first = std::random_device()();
  OnThreads(kBoards, [&](size_t i) { Weather(*boards[i], next, first); });
  LoseTheBroker(boards);
}

}  // namespace
}  // namespace varnel::board
