#include "board/cloud_board.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "support/eventually.h"
#include "virtual_board/common/files.h"
#include "virtual_board/identity/block.h"

namespace varnel::board {

using nlohmann::json;

namespace {

constexpr std::chrono::seconds kLimit{60};

BootOptions WithCloud(const BootOptions& more) {
  BootOptions options = DaemonOptions();
  options.cloud = TheCloud().Directory();
  options.camera = more.camera;
  options.clock = more.clock;
  options.device_key = more.device_key;
  return options;
}

}  // namespace

Cloud& TheCloud() {
  static Cloud cloud;
  return cloud;
}

CloudBoard::CloudBoard(const BootOptions& more, bool camera)
    : ServedBoard(WithCloud(more),
                  [&](const Board& one) {
                    if (!camera) one.SetCameraFaults("unplug");
                  }),
      serial(
          json::parse(ReadClearIdentityBlock(board.Paths().Dev() / "mmcblk0")).at("SerialNumber")),
      client(TheCloud(), serial) {
  EXPECT_TRUE(rpc.AwaitDaemon());
}

CloudBoard::~CloudBoard() {
  for (const std::string& problem : client.Record().Problems()) ADD_FAILURE() << problem;
}

json CloudBoard::Ask(const std::string& method, const json& params) {
  return rpc.Call("mqtt_agent." + method, params, "mqtt_agent/request");
}

std::string CloudBoard::Status() {
  return Ask("sync_config").at("result").at("status");
}

bool CloudBoard::Await(const std::string& status) {
  return test::Eventually([&] { return Status() == status; }, kLimit);
}

void CloudBoard::Join(const std::string& region) {
  EXPECT_EQ(Ask("set_region", {{"region", region}}), Success());
  EXPECT_TRUE(Await("connected"));
}

void CloudBoard::KillAndStart() {
  EXPECT_TRUE(board.SignalDaemon(SIGKILL));
  EXPECT_TRUE(board.AwaitDaemonEnd().has_value());
  EXPECT_TRUE(board.StartDaemon());
}

std::vector<std::string> CloudBoard::States() const {
  std::vector<std::string> states;
  for (const auto& told : rpc.Notifications("notify_mqtt_agent_status"))
    states.push_back(told.params.at("state"));
  states.erase(std::unique(states.begin(), states.end()), states.end());
  return states;
}

size_t CloudBoard::Requests(const std::string& path) const {
  return TheCloud().Requests(path, serial).size();
}

bool CloudBoard::AwaitLog(const std::string& text, size_t from) const {
  return test::Eventually([&] { return board.DaemonLog().find(text, from) != std::string::npos; },
                          kLimit);
}

void CloudBoard::ExpectNoSecretLeft() const {
  std::string secrets;
  for (const std::string& secret : TheCloud().Secrets()) secrets.append(secret) += '\n';
  EXPECT_NE(secrets, "");
  ReplaceFile(board.HostPath("/etc/varnel/secrets"), secrets);
  EXPECT_EQ(board
                .Shell("grep -rlaF -f /etc/varnel/secrets /userdata /home/ruxo/printer_data /tmp "
                       "/run /var/log /proc/[0-9]*/cmdline 2>/dev/null")
                .out,
            "");
}

}  // namespace varnel::board
