#include "virtual_board/usb/device_message.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "virtual_board/common/fd.h"

namespace varnel::board {

namespace {

constexpr uint32_t kManagerGroup = 2;

/// What libudev expects in front of the properties; numbers marked so are in network byte order.
struct Header {
  char prefix[8] = "libudev";
  uint32_t magic = htonl(0xfeedcafe);  // network
  uint32_t header_size = sizeof(Header);
  uint32_t properties_offset = sizeof(Header);
  uint32_t properties_size = 0;
  uint32_t subsystem_hash = 0;  // network
  uint32_t type_hash = 0;       // network
  uint32_t tags_high = 0;
  uint32_t tags_low = 0;
};
static_assert(sizeof(Header) == 40);

uint32_t Mixed(uint32_t value, uint32_t factor) {
  value *= factor;
  return (value ^ (value >> 24)) * factor;
}

/// MurmurHash2 with seed 0, by which the kernel filters for the listeners.
uint32_t Hash(const std::string& text) {
  constexpr uint32_t kFactor = 0x5bd1e995;
  auto hash = static_cast<uint32_t>(text.size());
  const size_t whole = text.size() / 4 * 4;
  for (size_t i = 0; i < whole; i += 4) {
    uint32_t block = 0;
    std::memcpy(&block, text.data() + i, sizeof block);
    hash = (hash * kFactor) ^ Mixed(block, kFactor);
  }
  if (whole < text.size()) {
    uint32_t rest = 0;
    std::memcpy(&rest, text.data() + whole, text.size() - whole);
    hash = (hash ^ rest) * kFactor;
  }
  hash = (hash ^ (hash >> 13)) * kFactor;
  return hash ^ (hash >> 15);
}

std::string Properties(const DeviceMessage& message) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  std::string text;
  for (const auto& [name, value] : {std::pair("ACTION", message.action),
                                    {"DEVPATH", message.path},
                                    {"SUBSYSTEM", message.subsystem},
                                    {"DEVTYPE", message.type},
                                    {"DEVNAME", message.node},
                                    {"SEQNUM", std::to_string(now.count())}}) {
    text.append(name).append("=").append(value).push_back('\0');
  }
  return text;
}

}  // namespace

void Send(const DeviceMessage& message) {
  const std::string properties = Properties(message);
  Header header;
  header.properties_size = static_cast<uint32_t>(properties.size());
  header.subsystem_hash = htonl(Hash(message.subsystem));
  header.type_hash = htonl(Hash(message.type));
  const std::string packet(reinterpret_cast<const char*>(&header), sizeof header);
  const std::string whole = packet + properties;

  const Fd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT));
  sockaddr_nl group{};
  group.nl_family = AF_NETLINK;
  group.nl_groups = kManagerGroup;
  const ssize_t sent = ::sendto(socket.Get(), whole.data(), whole.size(), 0,
                                reinterpret_cast<const sockaddr*>(&group), sizeof group);
  // Refused: nobody listens.
  if (sent < 0 && errno != ECONNREFUSED)
    throw std::system_error(errno, std::generic_category(), "device message");
}

}  // namespace varnel::board
