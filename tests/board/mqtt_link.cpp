#include "board/mqtt_link.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <stdexcept>

namespace varnel::board {

namespace {

// Packet types with their fixed flags: MQTT 3.1.1, section 2.2.
constexpr unsigned char kConnect = 0x10;
constexpr unsigned char kConnAck = 0x20;
constexpr unsigned char kPublish = 0x30;
constexpr unsigned char kRetain = 0x01;
constexpr unsigned char kSubscribe = 0x82;
constexpr unsigned char kSubAck = 0x90;
constexpr unsigned char kTypeBits = 0xF0;

Fd ConnectTo(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.native().size() >= sizeof address.sun_path) throw std::runtime_error("path too long");
  std::strcpy(address.sun_path, path.c_str());
  Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw std::runtime_error("no broker at " + path.string());
  }
  return fd;
}

std::string Text(const std::string& text) {
  const char length[] = {static_cast<char>(text.size() >> 8U), static_cast<char>(text.size())};
  return std::string(length, 2) + text;
}

std::string RemainingLength(size_t length) {
  std::string bytes;
  do {
    const size_t more = length > 0x7F ? 0x80 : 0;
    bytes += static_cast<char>((length & 0x7FU) | more);
    length >>= 7U;
  } while (length > 0);
  return bytes;
}

}  // namespace

MqttLink::MqttLink(const std::filesystem::path& socket, const std::string& filter,
                   OnMessage on_message)
    : fd_(ConnectTo(socket)), on_message_(std::move(on_message)) {
  Handshake(filter);
  reader_ = std::jthread([this] { ReadMessages(); });
}

MqttLink::~MqttLink() {
  ::shutdown(fd_.Get(), SHUT_RDWR);
}

void MqttLink::Handshake(const std::string& filter) {
  constexpr char kVersionCleanNoKeepAlive[] = {4, 2, 0, 0};
  const std::string id = "link-" + std::to_string(::getpid()) + "-" + std::to_string(fd_.Get());
  Send(kConnect, Text("MQTT") + std::string(kVersionCleanNoKeepAlive, 4) + Text(id));
  Send(kSubscribe, std::string("\0\1", 2) + Text(filter) + '\0');
  Packet packet;
  if (!Receive(packet) || packet.head != kConnAck || packet.body != std::string(2, '\0')) {
    throw std::runtime_error("the broker refuses the connection");
  }
  if (!Receive(packet) || packet.head != kSubAck) {
    throw std::runtime_error("the broker refuses the subscription");
  }
}

void MqttLink::Publish(const std::string& topic, const std::string& payload, bool retain) {
  Send(retain ? kPublish | kRetain : kPublish, Text(topic) + payload);
}

void MqttLink::Send(unsigned char head, const std::string& body) {
  const std::string packet = static_cast<char>(head) + RemainingLength(body.size()) + body;
  const std::lock_guard lock(send_mutex_);
  for (size_t sent = 0; sent < packet.size();) {
    const ssize_t now = ::send(fd_.Get(), packet.data() + sent, packet.size() - sent, MSG_NOSIGNAL);
    if (now <= 0) throw std::runtime_error("the broker has gone");
    sent += static_cast<size_t>(now);
  }
}

void MqttLink::ReadMessages() {
  for (Packet packet; Receive(packet);) {
    if ((packet.head & kTypeBits) != kPublish || packet.body.size() < 2) continue;
    const auto byte = [&](size_t at) { return static_cast<unsigned char>(packet.body[at]); };
    const size_t length = size_t{byte(0)} << 8U | byte(1);
    on_message_(packet.body.substr(2, length), packet.body.substr(2 + length));
  }
}

bool MqttLink::Receive(Packet& packet) const {
  char byte = 0;
  if (!ReadExactly(&byte, 1)) return false;
  packet.head = static_cast<unsigned char>(byte);
  size_t length = 0;
  for (unsigned shift = 0; shift == 0 || (byte & 0x80) != 0; shift += 7) {
    if (!ReadExactly(&byte, 1)) return false;
    length |= static_cast<size_t>(byte & 0x7F) << shift;
  }
  packet.body.resize(length);
  return ReadExactly(packet.body.data(), length);
}

bool MqttLink::ReadExactly(char* bytes, size_t count) const {
  return count == 0 || ::recv(fd_.Get(), bytes, count, MSG_WAITALL) == static_cast<ssize_t>(count);
}

}  // namespace varnel::board
