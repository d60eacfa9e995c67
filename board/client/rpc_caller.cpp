#include "virtual_board/client/rpc_caller.h"

#include "virtual_board/client/daemon_talk.h"

namespace varnel::board {

using nlohmann::json;
using namespace std::chrono_literals;

RpcCaller::RpcCaller(const Board& board)
    : sender_(LinkTo(board, "caller")), spy_(LinkTo(board, "spy")) {
  spy_.Subscribe("#", 0);
  watcher_ = std::jthread([this](const std::stop_token& stop) { Watch(stop); });
}

void RpcCaller::Watch(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    if (const auto message = spy_.Receive(50ms))
      record_.OnMessage(message->topic, message->payload);
  }
}

void RpcCaller::Publish(const std::string& topic, const std::string& payload) {
  const std::lock_guard lock(send_mutex_);
  sender_.Publish(topic, payload);
}

bool RpcCaller::AwaitDaemon(std::chrono::seconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (!Await(Post("camera.get_status", nullptr), 250ms).is_null()) return true;
  }
  return false;
}

json RpcCaller::Post(const std::string& method, const json& params, const std::string& topic) {
  json id = record_.NextId();
  Publish(topic, RpcRequest(id, method, params).dump());
  return id;
}

json RpcCaller::Call(const std::string& method, const json& params, const std::string& topic) {
  return Await(Post(method, params, topic));
}

json Success() {
  return {{"result", {{"state", "success"}}}};
}

json Error(int code, const std::string& message) {
  return {{"error", {{"code", code}, {"message", message}}}};
}

}  // namespace varnel::board
