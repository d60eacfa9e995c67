#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "support/eventually.h"
#include "support/temp_dir.h"

namespace varnel::test {

inline sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

/// A listening socket on a free loopback port that never accepts.
class DeafListener {
 public:
  explicit DeafListener(int backlog) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(fd_, backlog) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("no loopback port");
    }
    port_ = ntohs(address.sin_port);
  }
  ~DeafListener() { close(fd_); }
  DeafListener(const DeafListener&) = delete;
  DeafListener& operator=(const DeafListener&) = delete;

  uint16_t Port() const { return port_; }
  int Fd() const { return fd_; }

 private:
  const int fd_;
  uint16_t port_ = 0;
};

inline uint16_t FreePort() {
  return DeafListener(1).Port();
}

/// A real broker on a loopback port of its own.
class Mosquitto {
 public:
  Mosquitto() : port_(FreePort()) {
    std::ofstream(config_) << "listener " << port_
                           << " 127.0.0.1\nset_tcp_nodelay true\nallow_anonymous true\n";
    Start();
  }
  ~Mosquitto() { Stop(SIGKILL); }
  Mosquitto(const Mosquitto&) = delete;
  Mosquitto& operator=(const Mosquitto&) = delete;

  std::string Port() const { return std::to_string(port_); }

  void Start() {
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
      ::execl("/usr/sbin/mosquitto", "mosquitto", "-c", config_.c_str(), nullptr);
      ::_exit(127);
    }
    WaitUntilListening();
  }

  void Stop(int signal_number) {
    if (pid_ <= 0) return;
    kill(pid_, signal_number);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  void WaitUntilListening() const {
    const sockaddr_in address = Loopback(port_);
    const bool listens = Eventually([&] {
      const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      const bool up = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
      close(fd);
      return up;
    });
    if (!listens) throw std::runtime_error("mosquitto does not listen");
  }

  const TempDir directory_;
  const std::string config_ = directory_ / "mosquitto.conf";
  const uint16_t port_;
  pid_t pid_ = -1;
};

}  // namespace varnel::test
