#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace varnel::board {

struct Message {
  std::string topic;
  std::string payload;
};

/// A requester that is never the bottleneck: MQTT 3.1.1 over one blocking socket, no threads, no
/// timers. It sends small packets at once and acknowledges TCP data at once, so any 40 ms step that
/// shows is the other side's. Every failure throws std::runtime_error. One thread at a time.
class MqttLink {
 public:
  MqttLink(const std::string& host, int port, const std::string& client_id);
  /// Over a connected stream socket, which the link then owns.
  MqttLink(int socket, const std::string& client_id);
  ~MqttLink();
  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  /// Returns when the broker has acknowledged.
  void Subscribe(const std::string& topic, int qos);
  void Publish(const std::string& topic, const std::string& payload, int qos = 0);
  /// Like Publish, but keeps the packet until Flush: a burst goes out in one write.
  void Queue(const std::string& topic, const std::string& payload, int qos = 0);
  void Flush();
  /// The next message, or nothing when none came in time. Acknowledges QoS 1 deliveries.
  std::optional<Message> Receive(std::chrono::milliseconds timeout);

 private:
  struct Packet {
    uint8_t head = 0;
    std::string body;
  };

  void Greet(const std::string& client_id);
  std::string PublishPacket(const std::string& topic, const std::string& payload, int qos);
  void Send(const std::string& bytes);
  std::optional<Packet> NextPacket(std::chrono::milliseconds timeout);
  std::optional<Packet> TakeBuffered();
  bool Fill(std::chrono::milliseconds timeout);
  Packet Expect(uint8_t type);
  Message Accept(const Packet& packet);

  const int socket_;
  uint16_t packet_id_ = 0;
  std::string input_;
  size_t taken_ = 0;
  std::string output_;
};

}  // namespace varnel::board
