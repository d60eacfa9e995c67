#include "virtual_board/client/mqtt_link.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace varnel::board {
namespace {

constexpr std::chrono::milliseconds kBrokerTimeout{5000};
enum PacketType : uint8_t { kConnAck = 2, kPublish = 3, kSubAck = 9 };

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

std::string Number16(size_t value) {
  return {static_cast<char>(value >> 8), static_cast<char>(value & 0xff)};
}

std::string Text(const std::string& text) {
  return Number16(text.size()) + text;
}

uint16_t ReadNumber16(const std::string& bytes, size_t at) {
  const auto high = static_cast<uint8_t>(bytes.at(at));
  const auto low = static_cast<uint8_t>(bytes.at(at + 1));
  return static_cast<uint16_t>(high << 8 | low);
}

std::string MakePacket(uint8_t head, const std::string& body) {
  std::string packet(1, static_cast<char>(head));
  size_t left = body.size();
  do {
    const auto more = static_cast<uint8_t>(left > 127 ? 0x80 : 0);
    packet += static_cast<char>((left & 0x7f) | more);
    left >>= 7;
  } while (left > 0);
  return packet + body;
}

/// A Unix socket has nothing to hurry.
void Enable(int socket, int option) {
  const int on = 1;
  if (setsockopt(socket, IPPROTO_TCP, option, &on, sizeof on) != 0 && errno != EOPNOTSUPP) {
    Fail("setsockopt");
  }
}

int Open(const std::string& host, int port) {
  const int opened = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) {
    throw std::runtime_error("not an IPv4 address: " + host);
  }
  // The socket calls want the general address type.
  if (connect(opened, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(opened);
    Fail("connect to " + host + ":" + std::to_string(port));
  }
  Enable(opened, TCP_NODELAY);
  return opened;
}

}  // namespace

MqttLink::MqttLink(const std::string& host, int port, const std::string& client_id)
    : MqttLink(Open(host, port), client_id) {}

MqttLink::MqttLink(int socket, const std::string& client_id) : socket_(socket) {
  try {
    Greet(client_id);
  } catch (...) {
    close(socket_);
    throw;
  }
}

MqttLink::~MqttLink() {
  close(socket_);
}

void MqttLink::Greet(const std::string& client_id) {
  // Level 4 is MQTT 3.1.1, flag 2 a clean session, keep-alive 0 none.
  Send(MakePacket(0x10, Text("MQTT") + std::string("\x04\x02\x00\x00", 4) + Text(client_id)));
  if (Expect(kConnAck).body.at(1) != 0) {
    throw std::runtime_error("the broker refused the connection");
  }
}

void MqttLink::Subscribe(const std::string& topic, int qos) {
  Send(MakePacket(0x82, Number16(++packet_id_) + Text(topic) + static_cast<char>(qos)));
  Expect(kSubAck);
}

void MqttLink::Publish(const std::string& topic, const std::string& payload, int qos) {
  Send(PublishPacket(topic, payload, qos));
}

void MqttLink::Queue(const std::string& topic, const std::string& payload, int qos) {
  output_ += PublishPacket(topic, payload, qos);
}

std::string MqttLink::PublishPacket(const std::string& topic, const std::string& payload, int qos) {
  const std::string id = qos > 0 ? Number16(++packet_id_ == 0 ? ++packet_id_ : packet_id_) : "";
  return MakePacket(static_cast<uint8_t>(0x30 | qos << 1), Text(topic) + id + payload);
}

void MqttLink::Flush() {
  Send(output_);
  output_.clear();
}

std::optional<Message> MqttLink::Receive(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (true) {
    const auto left = end - std::chrono::steady_clock::now();
    const auto packet = NextPacket(
        std::max(std::chrono::milliseconds(0), std::chrono::ceil<std::chrono::milliseconds>(left)));
    if (!packet) {
      return std::nullopt;
    }
    if (packet->head >> 4 == kPublish) {
      return Accept(*packet);
    }
  }
}

void MqttLink::Send(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno != EINTR) {
      Fail("send");
    }
    sent += count > 0 ? static_cast<size_t>(count) : 0;
  }
}

std::optional<MqttLink::Packet> MqttLink::NextPacket(std::chrono::milliseconds timeout) {
  while (true) {
    if (auto packet = TakeBuffered()) {
      return packet;
    }
    if (!Fill(timeout)) {
      return std::nullopt;
    }
  }
}

std::optional<MqttLink::Packet> MqttLink::TakeBuffered() {
  size_t at = taken_ + 1;
  size_t length = 0;
  for (unsigned shift = 0;; shift += 7, ++at) {
    if (at >= input_.size()) {
      return std::nullopt;
    }
    const auto byte = static_cast<uint8_t>(input_[at]);
    length |= static_cast<size_t>(byte & 0x7f) << shift;
    if ((byte & 0x80) == 0) {
      break;
    }
  }
  if (input_.size() < at + 1 + length) {
    return std::nullopt;
  }
  Packet packet{static_cast<uint8_t>(input_[taken_]), input_.substr(at + 1, length)};
  taken_ = at + 1 + length;
  return packet;
}

bool MqttLink::Fill(std::chrono::milliseconds timeout) {
  input_.erase(0, taken_);
  taken_ = 0;
  pollfd wait{socket_, POLLIN, 0};
  if (poll(&wait, 1, static_cast<int>(timeout.count())) <= 0) {
    return false;
  }
  std::array<char, 65536> buffer;
  const ssize_t count = recv(socket_, buffer.data(), buffer.size(), 0);
  if (count <= 0) {
    Fail("the broker closed the connection");
  }
  input_.append(buffer.data(), static_cast<size_t>(count));
  Enable(socket_, TCP_QUICKACK);  // the kernel takes it back by itself
  return true;
}

MqttLink::Packet MqttLink::Expect(uint8_t type) {
  auto packet = NextPacket(kBrokerTimeout);
  if (!packet || packet->head >> 4 != type) {
    throw std::runtime_error("the broker did not answer as expected");
  }
  return *packet;
}

Message MqttLink::Accept(const Packet& packet) {
  const size_t topic_size = ReadNumber16(packet.body, 0);
  Message message{packet.body.substr(2, topic_size), ""};
  size_t payload_at = 2 + topic_size;
  if ((packet.head & 0x06) != 0) {
    Send(MakePacket(0x40, packet.body.substr(payload_at, 2)));
    payload_at += 2;
  }
  message.payload = packet.body.substr(payload_at);
  return message;
}

}  // namespace varnel::board
