// Boards whose cloud fails them again and again, in any order: afterwards each of them is back.
#include <gmock/gmock.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>

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

  Faults faults_;
};

TEST_F(CloudStormTest, EachBoardComesBackAndHoldsNoMoreThanBefore) {
  std::vector<std::unique_ptr<CloudBoard>> boards;
  for (size_t i = 0; i < kBoards; ++i) boards.push_back(std::make_unique<CloudBoard>());
  std::atomic<unsigned> next = 0;
  const unsigned first = std::random_device()();
  OnThreads(kBoards, [&](size_t i) {
    CloudBoard& board = *boards[i];
    board.Join();
    // The first storm makes what is made once.
    RunSequence(board, first + next++);
    const ProcessCounters before = board.board.DaemonCounters();
    while (next < Storms()) RunSequence(board, first + next++);
    const ProcessCounters after = board.board.DaemonCounters();
    EXPECT_LE(after.threads, before.threads + 8) << board.serial;
    EXPECT_LE(after.descriptors, before.descriptors + 8) << board.serial;
    EXPECT_LE(after.resident_kb, before.resident_kb + 65'536) << board.serial;
  });
}

}  // namespace
}  // namespace varnel::board
