#include "virtual_board/launcher/control.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <nlohmann/json.hpp>

namespace varnel::board {

using nlohmann::json;

namespace {

template <class Call>
bool WithAddress(const std::string& path, Call call) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return call(reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

Fd ConnectUnix(const std::filesystem::path& path, int type) {
  // The directory's descriptor stands for a path of any length.
  const Fd directory(::open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  Fd socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  const std::string short_path =
      "/proc/self/fd/" + std::to_string(directory.Get()) + "/" + path.filename().string();
  const auto connect = [&](const sockaddr* address, socklen_t size) {
    return ::connect(socket.Get(), address, size);
  };
  return directory && WithAddress(short_path, connect) ? std::move(socket) : Fd();
}

Fd ListenForControl() {
  Fd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  ::unlink(inside::kControlSocket);
  const bool bound = WithAddress(inside::kControlSocket, [&](const sockaddr* address, socklen_t n) {
    return ::bind(socket.Get(), address, n);
  });
  return bound && ::listen(socket.Get(), 64) == 0 ? std::move(socket) : Fd();
}

ControlClient::ControlClient(const Layout& layout)
    : socket_(ConnectUnix(layout.Control() / "control", SOCK_SEQPACKET)) {}

ControlClient::ControlClient(const CloudFiles& cloud)
    : socket_(ConnectUnix(cloud.Control(), SOCK_SEQPACKET)) {}

pid_t ControlClient::HostPid() const {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (!socket_ || ::getsockopt(socket_.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return 0;
  return peer.pid;
}

std::optional<json> ControlClient::Call(const std::vector<std::string>& words,
                                        std::chrono::milliseconds limit) {
  const std::string request = json(words).dump();
  if (!socket_ || ::send(socket_.Get(), request.data(), request.size(), MSG_NOSIGNAL) < 0)
    return {};
  pollfd answered{socket_.Get(), POLLIN, 0};
  if (::poll(&answered, 1, static_cast<int>(limit.count())) != 1) return {};
  std::string answer(kMaximumControlPacket, '\0');
  const ssize_t size = ::recv(socket_.Get(), answer.data(), answer.size(), 0);
  if (size <= 0) return {};
  return json::parse(answer.begin(), answer.begin() + size, nullptr, false);
}

}  // namespace varnel::board
