// Local requests while the daemon waits in a TLS handshake with a cloud that has fallen silent,
// against the same with the cloud link switched off, in blocks that take turns. Runs on the host.
// Options: --board, --cloud, the directories; --rounds, --block-size. The daemon is not to be of
// any region, and is of none afterwards.
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <thread>

#include "support/cloud_side.h"
#include "virtual_board/common/await.h"

namespace {

using namespace varnel::bench;
namespace board = varnel::board;
using nlohmann::json;
using namespace std::chrono_literals;

class HangBench {
 public:
  explicit HangBench(const Options& options)
      : block_size_(options.Number("block-size", 2000)),
        rounds_(options.Number("rounds", 4)),
        side_(options),
        link_(side_.LocalLink("cloud-hang-bench")),
        target_(DaemonTarget(options)) {
    link_.Subscribe(target_.response_topic, 0);
  }
  ~HangBench() {
    try {
      side_.TheCloud().SetFaults("");
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s\n", error.what());
    }
  }
  HangBench(const HangBench&) = delete;
  HangBench& operator=(const HangBench&) = delete;

  int Measure() {
    Compare("api");
    Compare("broker");
    return report_.ExitStatus();
  }

 private:
  void Compare(const std::string& silent) {
    std::vector<double> hanging;
    std::vector<double> off;
    for (int round = 0; round < rounds_; ++round) {
      SwitchOff();
      Block(off);
      Hang("silence " + silent);
      Block(hanging);
    }
    SwitchOff();
    const std::string name = "local round trip, " + silent + " silent";
    Percentiles(name + ", p50", 0.5, 1.2, hanging, off);
    Percentiles(name + ", p99", 0.99, 3, hanging, off);
  }

  /// What the daemon knows from the cloud goes, too: else it would not ask again.
  void SwitchOff() {
    side_.TheCloud().SetFaults("");
    side_.Ask("factory_reset");
    side_.Ask("set_link_mode", {{"link_mode", "lan"}});
    side_.AwaitStatus("disconnected");
    side_.Ask("set_region", {{"region", "int"}});
  }

  /// Returns when the second connection is met: the first is a look whether anybody listens.
  void Hang(const std::string& fault) {
    const size_t before = Met(fault);
    side_.TheCloud().SetFaults(fault);
    side_.Ask("set_link_mode", {{"link_mode", "wan"}});
    if (!board::Await(20s, [&] { return Met(fault) >= before + 2; }))
      throw std::runtime_error("the daemon does not meet: " + fault);
  }

  size_t Met(const std::string& fault) {
    size_t met = 0;
    for (const json& one : side_.TheCloud().Journal()) met += one.value("fault", "") == fault;
    return met;
  }

  /// Ends before the daemon gives up an attempt, which takes 5 s.
  void Block(std::vector<double>& samples) {
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(kSettle);
    for (int i = 0; i < kWarmUp; ++i) RoundTrip(link_, target_, ++id_);
    for (int i = 0; i < block_size_ && Since(start) < 4000; ++i)
      samples.push_back(RoundTrip(link_, target_, ++id_));
  }

  void Percentiles(const std::string& name, double share, double limit,
                   const std::vector<double>& hanging, const std::vector<double>& off) {
    const double ours = Percentile(hanging, share);
    const double reference = Percentile(off, share);
    report_.Figure(name, ours, "ms");
    report_.Figure(name + ", link off", reference, "ms");
    report_.AtMost(name + ", ratio", ours / reference, limit);
  }

  static constexpr auto kSettle = 1s;  // what a switch of the link set off is over
  static constexpr int kWarmUp = 200;

  const int block_size_;
  const int rounds_;
  Report report_;
  CloudSide side_;
  MqttLink link_;
  const Target target_;
  uint64_t id_ = 0;
};

int Measure(const Options& options) {
  return HangBench(options).Measure();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
