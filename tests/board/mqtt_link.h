#pragma once

#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "virtual_board/common/fd.h"

namespace varnel::board {

/// A bare MQTT 3.1.1 connection to a board's broker through its Unix socket, at QoS 0: sends any
/// bytes as a payload, which the broker's own clients cannot, and serves any number of boards from
/// one program.
class MqttLink {
 public:
  /// Runs on the link's own thread.
  using OnMessage = std::function<void(const std::string& topic, const std::string& payload)>;

  /// Returns when the broker has taken the subscription. Throws std::runtime_error.
  MqttLink(const std::filesystem::path& socket, const std::string& filter, OnMessage on_message);
  ~MqttLink();
  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  /// Throws std::runtime_error when the broker has gone.
  void Publish(const std::string& topic, const std::string& payload, bool retain = false);

 private:
  struct Packet {
    unsigned char head = 0;
    std::string body;
  };

  void Handshake(const std::string& filter);
  void Send(unsigned char head, const std::string& body);
  void ReadMessages();
  /// False when the connection has ended.
  bool Receive(Packet& packet) const;
  bool ReadExactly(char* bytes, size_t count) const;

  const Fd fd_;
  const OnMessage on_message_;
  std::mutex send_mutex_;
  std::jthread reader_;
};

}  // namespace varnel::board
