#include "service/cloud/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstdlib>

namespace varnel::test {
namespace {

sockaddr_in Loopback() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
  return address;
}

int Listen() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = Loopback();
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) std::abort();
  if (::listen(fd, SOMAXCONN) != 0) std::abort();
  return fd;
}

size_t LengthOf(const std::string& request, size_t header_end) {
  const size_t at = request.find("Content-Length: ");
  const size_t body = at < header_end ? std::strtoull(request.c_str() + at + 16, nullptr, 10) : 0;
  return header_end + 4 + body;
}

/// The next request of a connection; empty at its end.
std::string ReadRequest(int fd) {
  std::string request;
  std::array<char, 4096> piece{};
  for (bool invited = false;;) {
    const size_t header_end = request.find("\r\n\r\n");
    if (header_end != std::string::npos && !invited) {
      invited = true;
      if (request.find("\r\nExpect: 100-continue") < header_end)
        (void)ScriptedServer::Peer(fd).Send("HTTP/1.1 100 Continue\r\n\r\n");
    }
    if (header_end != std::string::npos && request.size() >= LengthOf(request, header_end))
      return request;
    const ssize_t got = ::recv(fd, piece.data(), piece.size(), 0);
    if (got <= 0) return {};
    request.append(piece.data(), static_cast<size_t>(got));
  }
}

}  // namespace

bool ScriptedServer::Peer::Send(const std::string& bytes) const {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t now = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (now <= 0) return false;
    sent += static_cast<size_t>(now);
  }
  return true;
}

bool ScriptedServer::Peer::Answer(const std::string& body, const std::string& status) const {
  return Send("HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
              "\r\n\r\n" + body);
}

void ScriptedServer::Peer::ResetAtEnd() const {
  const linger at_once{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
}

void ScriptedServer::Peer::AwaitEnd() const {
  char byte = 0;
  while (::recv(fd_, &byte, 1, 0) > 0) {
  }
}

ScriptedServer::ScriptedServer(Script script)
    : script_(std::move(script)), listener_(Listen()), thread_([this] { Serve(); }) {}

ScriptedServer::~ScriptedServer() {
  ::shutdown(listener_.Get(), SHUT_RDWR);
  thread_.join();
  {
    const std::lock_guard lock(mutex_);
    for (const Connection& one : open_)
      if (one.fd) ::shutdown(one.fd.Get(), SHUT_RDWR);
  }
  for (Connection& one : open_) one.thread.join();
}

std::string ScriptedServer::Url(const std::string& path) const {
  sockaddr_in address{};
  socklen_t size = sizeof(address);
  ::getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size);
  return "http://127.0.0.1:" + std::to_string(::ntohs(address.sin_port)) + path;
}

void ScriptedServer::Serve() {
  for (int fd = 0; (fd = ::accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    connections.Put(fd);
    const std::lock_guard lock(mutex_);
    std::erase_if(open_, [](const Connection& one) { return !one.fd; });
    Connection& connection = open_.emplace_back(fd);
    connection.thread = std::jthread([this, &connection] { ServeOne(connection); });
  }
}

void ScriptedServer::ServeOne(Connection& connection) {
  const int fd = [&] {
    const std::lock_guard lock(mutex_);
    return connection.fd.Get();
  }();
  for (std::string request = ReadRequest(fd); !request.empty(); request = ReadRequest(fd)) {
    requests.Put(request);
    if (!script_(request, Peer(fd))) break;
  }
  const std::lock_guard lock(mutex_);
  connection.fd.Reset();
}

}  // namespace varnel::test
