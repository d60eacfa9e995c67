#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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
  /// `listener` holds further lines for the listener (TLS and the like).
  explicit Mosquitto(const std::string& listener = "allow_anonymous true\n") : port_(FreePort()) {
    std::ofstream(directory_.Path() / "mosquitto.conf")
        << "listener " << port_ << " 127.0.0.1\nset_tcp_nodelay true\n"
        << listener;
    Start();
  }
  ~Mosquitto() { Stop(SIGKILL); }
  Mosquitto(const Mosquitto&) = delete;
  Mosquitto& operator=(const Mosquitto&) = delete;

  std::string Port() const { return std::to_string(port_); }

  void Start() {
    const std::string config = (directory_.Path() / "mosquitto.conf").string();
    std::vector<char*> arguments;
    for (const char* argument : {"mosquitto", "-c", config.c_str()}) {
      arguments.push_back(const_cast<char*>(argument));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    const int error =
        posix_spawn(&pid_, "/usr/sbin/mosquitto", &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("mosquitto does not start");
    WaitUntilListening();
  }

  void Stop(int signal_number) {
    if (pid_ <= 0) return;
    kill(pid_, signal_number);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  /// The broker tells nobody when it listens: asking again after a moment is the only way.
  void WaitUntilListening() const {
    for (int attempt = 0; attempt < 2000; ++attempt) {
      const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      const sockaddr_in address = Loopback(port_);
      const bool up = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
      close(fd);
      if (up) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));  // sleeps: between two looks
    }
    throw std::runtime_error("mosquitto does not listen");
  }

  const TempDir directory_;
  const uint16_t port_;
  pid_t pid_ = -1;
};

}  // namespace varnel::test
