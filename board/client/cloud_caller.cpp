#include "virtual_board/client/cloud_caller.h"

#include <atomic>
#include <stdexcept>

namespace varnel::board {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

std::string UniqueName() {
  static std::atomic<int> callers{0};
  return "cloud-caller-" + std::to_string(++callers);
}

}  // namespace

CloudCaller::CloudCaller(const Cloud& cloud, std::string serial_number)
    : cloud_(cloud), device_(std::move(serial_number)), name_(UniqueName()) {
  watcher_ = std::jthread([this](const std::stop_token& stop) { Watch(stop); });
}

void CloudCaller::Watch(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    try {
      WatchLink(stop);
    } catch (const std::runtime_error&) {
      std::this_thread::sleep_for(50ms);
    }
  }
}

void CloudCaller::WatchLink(const std::stop_token& stop) {
  MqttLink link = cloud_.Link(name_ + "-watch");
  link.Subscribe(device_ + "/#", 1);
  while (!stop.stop_requested()) {
    const auto message = link.Receive(50ms);
    if (message)
      record_.OnMessage("<serial>" + message->topic.substr(device_.size()), message->payload);
  }
}

bool CloudCaller::Publish(const std::string& topic, const std::string& payload) {
  const std::lock_guard lock(send_mutex_);
  // The first attempt may meet a link that a broker of before had.
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      // NOLINTNEXTLINE(modernize-make-unique): a link cannot be moved
      if (!sender_) sender_.reset(new MqttLink(cloud_.Link(name_)));
      sender_->Publish(topic, payload, 1);
      return true;
    } catch (const std::runtime_error&) {
      sender_.reset();
    }
  }
  return false;
}

json CloudCaller::Post(const std::string& method, const json& params) {
  json id = record_.NextId();
  return Publish(device_ + "/request", RpcRequest(id, method, params).dump()) ? id : json();
}

json CloudCaller::Call(const std::string& method, const json& params,
                       std::chrono::milliseconds limit) {
  return Await(Post(method, params), limit);
}

json CloudCaller::CallUntilAnswered(const std::string& method, const json& params,
                                    std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    json answer = Call(method, params, 250ms);
    if (!answer.is_null()) return answer;
  }
  return nullptr;
}

}  // namespace varnel::board
