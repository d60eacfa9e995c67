// Many boards and one cloud, for scripts/cloud-fleet: how fast they come, and how gently they come
// back. Ends with 0 only when all limits are kept.
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <thread>

#include "board/run_inside.h"
#include "virtual_board/client/board.h"
#include "virtual_board/client/cloud.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using std::chrono::seconds;

constexpr const char* kToken = "/api/oauth2/token";

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class Fleet {
 public:
  explicit Fleet(size_t size) {
    for (size_t i = 0; i < size; ++i) boards_.push_back(Boot());
  }

  /// Chooses a region on all boards and waits until the broker has met them.
  void Join() {
    const double start = Now();
    for (const auto& board : boards_) {
      const auto answer = board->Exec(
          {"mosquitto_rr", "-t", "mqtt_agent/request", "-e", "mqtt_agent/response", "-W", "20",
           "-m",
           R"({"jsonrpc":"2.0","id":1,"method":"mqtt_agent.set_region","params":{"region":"int"}})"});
      if (answer.status != 0) Judge("a board does not answer", 1, 0);
    }
    Judge("all connected, seconds", AwaitAll(start, seconds(200)), 180);
  }

  void LoseTheBroker() {
    cloud_.KillBroker();
    std::this_thread::sleep_for(seconds(10));  // sleeps: the outage itself
    const double start = Now();
    cloud_.StartBroker();
    Judge("all back after the broker was away for 10 s, seconds", AwaitAll(start, seconds(90)), 60);
    std::map<long, size_t> by_second;
    for (const double time : ConnectsSince(start)) ++by_second[static_cast<long>(time)];
    size_t most = 0;
    for (const auto& [second, count] : by_second) most = std::max(most, count);
    Judge("most in one second", static_cast<double>(most),
          std::max(3.0, static_cast<double>(boards_.size()) / 3));
  }

  /// The API refuses everything for three minutes.
  void RefuseAll(bool restarted) {
    const double start = Now();
    cloud_.SetFaults("status /api/* 503\n");
    if (restarted) RestartAll();
    std::this_thread::sleep_for(seconds(180));  // sleeps: the outage itself
    const double end = Now();
    const char* when = restarted ? "while all start" : "while all are connected";
    for (int minute = 0; minute < 3; ++minute) {
      Judge(fmt::format("API away {}: most token requests of a device in minute {}", when,
                        minute + 1),
            static_cast<double>(MostRequests(start + 60 * minute, start + 60 * (minute + 1))),
            minute == 0 ? 20 : 10);
    }
    cloud_.SetFaults("");
    Judge(fmt::format("API back {}: all connected, seconds", when),
          restarted ? AwaitAll(end, seconds(90)) : 0, 60);
  }

  void TellCosts() {
    const double period = 20;
    std::vector<ProcessCounters> before;
    for (const auto& board : boards_) before.push_back(board->DaemonCounters());
    std::this_thread::sleep_for(std::chrono::duration<double>(period));  // sleeps: what is measured
    long memory = 0;
    double processor = 0;
    for (size_t i = 0; i < boards_.size(); ++i) {
      const ProcessCounters after = boards_[i]->DaemonCounters();
      memory += after.resident_kb;
      processor +=
          std::chrono::duration<double>(after.processor_time - before[i].processor_time).count();
    }
    const auto count = static_cast<double>(boards_.size());
    fmt::print("a daemon: {:.1f} MiB resident, {:.2f} % of a core while connected\n",
               static_cast<double>(memory) / 1024 / count, 100 * processor / period / count);
  }

  [[nodiscard]] bool IsGood() const { return good_; }

 private:
  std::unique_ptr<Board> Boot() {
    BootOptions options = DaemonOptions();
    options.cloud = cloud_.Directory();
    auto board = std::make_unique<Board>(options);
    board->SetCameraFaults("unplug");  // without a camera the start is quick
    if (!board->StartDaemon()) throw std::runtime_error("a daemon does not start");
    return board;
  }

  void RestartAll() {
    for (const auto& board : boards_) (void)board->SignalDaemon(9);
    for (const auto& board : boards_) {
      (void)board->AwaitDaemonEnd();
      (void)board->StartDaemon();
    }
  }

  /// When the broker met devices, from then on.
  std::vector<double> ConnectsSince(double start,
                                    std::map<std::string, double>* first = nullptr) const {
    std::vector<double> times;
    for (const json& entry : cloud_.Journal()) {
      if (entry.at("event") != "broker" || entry.value("device", "").empty()) continue;
      const double time = entry.at("monotonic");
      if (time < start) continue;
      times.push_back(time);
      if (first != nullptr) first->try_emplace(entry.at("device"), time);
    }
    return times;
  }

  /// How long it took until the broker had met every device.
  double AwaitAll(double start, seconds limit) const {
    for (;;) {
      std::map<std::string, double> first;
      (void)ConnectsSince(start, &first);
      double last = start;
      for (const auto& [device, time] : first) last = std::max(last, time);
      if (first.size() == boards_.size()) return last - start;
      if (Now() - start > static_cast<double>(limit.count())) return Now() - start;
      std::this_thread::sleep_for(seconds(1));  // sleeps: between two looks
    }
  }

  size_t MostRequests(double from, double to) const {
    std::map<std::string, size_t> by_board;
    size_t most = 0;
    for (const json& request : cloud_.Requests(kToken)) {
      const double time = request.at("monotonic");
      if (time >= from && time < to) most = std::max(most, ++by_board[request.at("board")]);
    }
    return most;
  }

  void Judge(const std::string& what, double value, double limit) {
    const bool good = value <= limit;
    good_ = good_ && good;
    fmt::print("{}: {:.1f} (at most {:.0f}) {}\n", what, value, limit, good ? "ok" : "TOO MUCH");
    std::cout.flush();
  }

  Cloud cloud_;
  std::vector<std::unique_ptr<Board>> boards_;
  bool good_ = true;
};

}  // namespace
}  // namespace varnel::board

int main(int argc, char** argv) {
  varnel::board::Fleet fleet(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 200);
  fleet.Join();
  fleet.TellCosts();
  fleet.LoseTheBroker();
  fleet.RefuseAll(true);
  fleet.RefuseAll(false);
  return fleet.IsGood() ? 0 : 1;
}
