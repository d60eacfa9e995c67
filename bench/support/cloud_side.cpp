#include "support/cloud_side.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <stdexcept>

#include "virtual_board/common/await.h"
#include "virtual_board/identity/block.h"
#include "virtual_board/launcher/control.h"

namespace varnel::bench {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr const char* kResponses = "mqtt_agent/response";
constexpr auto kLimit = 60s;

std::string SerialNumberOf(const board::Layout& layout) {
  return json::parse(board::ReadClearIdentityBlock(layout.Dev() / "mmcblk0")).at("SerialNumber");
}

}  // namespace

CloudSide::CloudSide(const Options& options)
    : cloud_(board::Cloud::Attach(options.Text("cloud"))),
      layout_(options.Text("board")),
      serial_number_(SerialNumberOf(layout_)),
      link_(LocalLink("cloud-bench-control")) {
  link_.Subscribe(kResponses, 0);
}

MqttLink CloudSide::LocalLink(const std::string& client_id) const {
  const board::Fd socket = board::ConnectUnix(layout_.BrokerSocket(), SOCK_STREAM);
  if (!socket) throw std::runtime_error("the board has no broker");
  return {::fcntl(socket.Get(), F_DUPFD_CLOEXEC, 0), client_id};
}

json CloudSide::Ask(const std::string& method, const json& params) {
  link_.Publish("mqtt_agent/request",
                RequestText(++id_, "mqtt_agent." + method, params.is_null() ? "" : params.dump()));
  const json answer = json::parse(AwaitAnswer(link_, id_, kLimit));
  if (!answer.contains("result")) throw std::runtime_error(method + ": " + answer.dump());
  return answer.at("result");
}

void CloudSide::AwaitStatus(const std::string& status) {
  if (!board::Await(kLimit, [&] { return Ask("sync_config").at("status") == status; }))
    throw std::runtime_error("the cloud link did not become " + status);
}

}  // namespace varnel::bench
