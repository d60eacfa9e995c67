// varnel-uplink NAME: runs inside a board with a cloud. Listens where the board meets the cloud,
// and hands the sockets over to the cloud, which lies out of the board's reach. While no cloud
// takes them, connections are refused.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "virtual_board/common/fd.h"
#include "virtual_board/common/files.h"
#include "virtual_board/launcher/control.h"
#include "virtual_board/launcher/layout.h"

namespace {

using namespace varnel::board;

constexpr const char* kCloud = "127.0.0.2";
constexpr const char* kNameServer = "127.0.0.3";

Fd Bound(int type, const char* address, uint16_t port) {
  Fd bound(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(bound.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_port = htons(port);
  ::inet_pton(AF_INET, address, &place.sin_addr);
  if (::bind(bound.Get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
    throw std::runtime_error(std::string(address) + ":" + std::to_string(port) + ": " +
                             std::strerror(errno));
  }
  return bound;
}

/// Sees every attempt to connect to the cloud, refused ones too: the IP packet that begins it,
/// once.
Fd AttemptsToConnect() {
  constexpr uint32_t kCloudAddress = 0x7f000002;
  constexpr uint32_t kPacketType = static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);
  constexpr uint32_t kSyn = 0x02;
  constexpr uint32_t kSynAck = 0x12;
  std::array<sock_filter, 11> program = {{
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, kPacketType),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_HOST, 0, 8),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, offsetof(iphdr, protocol)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_TCP, 0, 6),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(iphdr, daddr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kCloudAddress, 0, 4),
      BPF_STMT(BPF_LD | BPF_B | BPF_ABS, sizeof(iphdr) + offsetof(tcphdr, th_flags)),
      BPF_STMT(BPF_ALU | BPF_AND | BPF_K, kSynAck),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kSyn, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, sizeof(iphdr) + sizeof(tcphdr)),
      BPF_STMT(BPF_RET | BPF_K, 0),
  }};
  const sock_fprog filter{program.size(), program.data()};
  Fd seen(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_ll place{};
  place.sll_family = AF_PACKET;
  place.sll_protocol = htons(ETH_P_IP);
  place.sll_ifindex = static_cast<int>(::if_nametoindex("lo"));
  if (::setsockopt(seen.Get(), SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
      ::bind(seen.Get(), reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
    throw std::runtime_error(std::string("packets cannot be seen: ") + std::strerror(errno));
  }
  return seen;
}

constexpr size_t kListeners = 3;

/// In the order in which the cloud expects them, those that listen first.
std::vector<Fd> WhatIsHanded() {
  std::vector<Fd> handed;
  handed.push_back(Bound(SOCK_STREAM, kCloud, 443));
  handed.push_back(Bound(SOCK_STREAM, kCloud, 80));
  handed.push_back(Bound(SOCK_STREAM, kCloud, 8883));
  handed.push_back(Bound(SOCK_DGRAM, kNameServer, 53));
  handed.push_back(AttemptsToConnect());
  handed.emplace_back(::open("/etc/hosts", O_RDWR | O_CLOEXEC));
  return handed;
}

bool Hand(const Fd& cloud, const std::vector<Fd>& handed, const std::string& name) {
  std::string greeting = nlohmann::json({{"board", name}}).dump();
  alignas(cmsghdr) std::array<char, CMSG_SPACE(16 * sizeof(int))> room{};
  iovec content{greeting.data(), greeting.size()};
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = room.data();
  message.msg_controllen = CMSG_SPACE(handed.size() * sizeof(int));
  cmsghdr* descriptors = CMSG_FIRSTHDR(&message);
  descriptors->cmsg_level = SOL_SOCKET;
  descriptors->cmsg_type = SCM_RIGHTS;
  descriptors->cmsg_len = CMSG_LEN(handed.size() * sizeof(int));
  for (size_t i = 0; i < handed.size(); ++i) {
    const int fd = handed[i].Get();
    std::memcpy(CMSG_DATA(descriptors) + i * sizeof fd, &fd, sizeof fd);
  }
  return ::sendmsg(cloud.Get(), &message, MSG_NOSIGNAL) > 0;
}

/// Waits for the cloud's next packet; false when it is gone.
bool Hear(const Fd& cloud) {
  std::array<char, 64> packet{};
  return ::recv(cloud.Get(), packet.data(), packet.size(), 0) > 0;
}

void Refuse(const Fd& listener) {
  int listens = 0;
  socklen_t size = sizeof listens;
  ::getsockopt(listener.Get(), SOL_SOCKET, SO_ACCEPTCONN, &listens, &size);
  // It keeps its address and can listen again.
  if (listens != 0) ::shutdown(listener.Get(), SHUT_RDWR);
}

/// Hands everything over and waits until the cloud is gone.
void Join(const std::vector<Fd>& handed, const std::string& name) {
  const Fd cloud = ConnectUnix(std::string(inside::kWire) + "/uplink", SOCK_SEQPACKET);
  if (!cloud || !Hand(cloud, handed, name)) return;
  if (Hear(cloud)) ReplaceFile(inside::kJoined, "");
  while (Hear(cloud)) {
  }
  ::unlink(inside::kJoined);
  for (size_t i = 0; i < kListeners; ++i) Refuse(handed[i]);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) throw std::invalid_argument("usage: varnel-uplink NAME");
  const std::vector<Fd> handed = WhatIsHanded();
  // Whoever asks the name server over TCP waits for ever, too.
  const Fd stream_names = Bound(SOCK_STREAM, kNameServer, 53);
  ::listen(stream_names.Get(), 16);
  while (true) {
    Join(handed, argv[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "varnel-uplink: %s\n", error.what());
  return 1;
}
