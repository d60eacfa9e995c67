// What else can happen to the link between the daemon and its broker.
#include <gmock/gmock.h>
#include <signal.h>

#include <thread>

#include "board/request_ledger.h"
#include "board/run_inside.h"
#include "virtual_board/client/daemon_talk.h"
#include "virtual_board/client/rpc_caller.h"

namespace varnel::board {
namespace {

using namespace std::chrono_literals;

/// Every proxy variable that a library may look at points to a port where nobody listens.
BootOptions BehindAHostileProxy() {
  BootOptions options = DaemonOptions();
  for (const char* name :
       {"http_proxy", "https_proxy", "all_proxy", "HTTP_PROXY", "HTTPS_PROXY", "ALL_PROXY"}) {
    options.environment[name] = "http://127.0.0.1:9";
  }
  options.environment["no_proxy"] = "";
  return options;
}

class BrokerFaultTest : public testing::Test {
 protected:
  BrokerFaultTest() {
    board_.SetCameraFaults("unplug");  // without a camera the start is quick
    console_.Mark();
  }

  void StartDaemon() {
    ASSERT_TRUE(board_.StartDaemon({"-v"}));
    ASSERT_TRUE(console_.AwaitText("connected successfully", 30s));
    ASSERT_TRUE(RpcCaller(board_).AwaitDaemon(10s));
    std::this_thread::sleep_for(1s);  // sleeps: a loss before is noticed later
  }
  /// Requests sent while something is wrong are all answered once when it is over.
  void SurvivesWithoutLoss(const std::function<void()>& begin, const std::function<void()>& end) {
    RequestLedger ledger;
    MqttLink link = LinkTo(board_, "load");
    link.Subscribe("+/response", 0);
    begin();
    for (int i = 0; i < 50; ++i) ledger.Probe(link, RequestLedger::kTopics[i % 2]);
    std::this_thread::sleep_for(2s);  // sleeps: the length of the fault
    end();
    while (ledger.Open(0) > 0) {
      const auto message = link.Receive(20s);
      ASSERT_TRUE(message) << ledger.Open(0) << " requests are not answered";
      ledger.Take(*message);
    }
  }

  const Board board_{BehindAHostileProxy()};
  DaemonConsole console_{board_};
};

TEST_F(BrokerFaultTest, ShortDisturbancesLoseNothing) {
  StartDaemon();
  SurvivesWithoutLoss([this] { ASSERT_TRUE(board_.SignalService("broker", SIGSTOP)); },
                      [this] { ASSERT_TRUE(board_.SignalService("broker", SIGCONT)); });
  SurvivesWithoutLoss(
      [this] {
        ASSERT_EQ(board_.Exec({"ip", "link", "set", "lo", "down"}).status, 0);
      },
      [this] {
        ASSERT_EQ(board_.Exec({"ip", "link", "set", "lo", "up"}).status, 0);
      });
  EXPECT_EQ(console_.Count("connected successfully"), 1U);
  EXPECT_EQ(console_.Count("connection lost"), 0U);
}

}  // namespace
}  // namespace varnel::board
