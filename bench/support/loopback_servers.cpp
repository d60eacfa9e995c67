#include "support/loopback_servers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <string_view>

#include "support/turns.h"

namespace varnel::bench {
namespace {

utils::UniqueFd Listen() {
  utils::UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  Check(::bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind");
  Check(::listen(fd.Get(), 8) == 0, "listen");
  return fd;
}

bool SendAll(int peer, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t now = ::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (now <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(now));
  }
  return true;
}

/// One end of a connection that sends requests with bodies.
class PutPeer {
 public:
  explicit PutPeer(int fd) : fd_(fd), buffer_(size_t{1} << 20U, '\0') {}

  bool AnswerOne() {
    const size_t head = Head();
    if (head == 0) return false;
    const std::string_view text(buffer_.data(), head);
    const int64_t length = LengthIn(text);
    if (text.find("100-continue") != text.npos && !SendAll(fd_, "HTTP/1.1 100 Continue\r\n\r\n"))
      return false;
    return Swallow(length - static_cast<int64_t>(filled_ - head)) &&
           SendAll(fd_, "HTTP/1.1 200 OK\r\nETag: \"part\"\r\nContent-Length: 0\r\n\r\n");
  }

 private:
  /// Bytes of the next head, which stands at the begin of the buffer; 0: there is none.
  size_t Head() {
    for (filled_ = 0;;) {
      const ssize_t got = ::recv(fd_, buffer_.data() + filled_, buffer_.size() - filled_, 0);
      if (got <= 0) return 0;
      filled_ += static_cast<size_t>(got);
      const size_t end = std::string_view(buffer_.data(), filled_).find("\r\n\r\n");
      if (end != std::string_view::npos) return end + 4;
    }
  }
  static int64_t LengthIn(std::string_view head) {
    constexpr std::string_view kName = "Content-Length: ";
    const size_t at = head.find(kName);
    return at == head.npos ? 0 : std::stoll(std::string(head.substr(at + kName.size(), 20)));
  }
  bool Swallow(int64_t left) {
    while (left > 0) {
      const size_t room = std::min<size_t>(buffer_.size(), static_cast<size_t>(left));
      const ssize_t got = ::recv(fd_, buffer_.data(), room, 0);
      if (got <= 0) return false;
      left -= got;
    }
    return true;
  }

  const int fd_;
  std::string buffer_;
  size_t filled_ = 0;
};

}  // namespace

LoopbackServer::LoopbackServer(Serve serve)
    : serve_(std::move(serve)), listener_(Listen()), thread_([this] { Run(); }) {}

LoopbackServer::~LoopbackServer() {
  ::shutdown(listener_.Get(), SHUT_RDWR);
}

std::string LoopbackServer::Url() const {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  ::getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size);
  return "http://127.0.0.1:" + std::to_string(::ntohs(address.sin_port)) + "/file";
}

void LoopbackServer::Run() const {
  for (int fd = 0; (fd = ::accept(listener_.Get(), nullptr, nullptr)) >= 0;) {
    const utils::UniqueFd peer(fd);
    serve_(fd);
  }
}

LoopbackServer::Serve SendZeros(int64_t bytes) {
  return [bytes](int peer) {
    const std::string block(size_t{1} << 20U, '\0');
    std::string request(4096, '\0');
    if (::recv(peer, request.data(), request.size(), 0) <= 0) return;
    const std::string head =
        "HTTP/1.1 200 OK\r\nConnection: close\r\nETag: \"1\"\r\nContent-Length: " +
        std::to_string(bytes) + "\r\n\r\n";
    bool good = SendAll(peer, head);
    for (int64_t left = bytes; good && left > 0; left -= static_cast<int64_t>(block.size()))
      good =
          SendAll(peer, {block.data(), std::min<size_t>(block.size(), static_cast<size_t>(left))});
  };
}

LoopbackServer::Serve SwallowPuts() {
  return [](int fd) {
    PutPeer peer(fd);
    while (peer.AnswerOne()) {
    }
  };
}

}  // namespace varnel::bench
