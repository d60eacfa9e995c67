#pragma once

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "support/eventually.h"
#include "utils/owned.h"

namespace varnel::test {

/// A server on the loopback that answers each request by a function, over a socket that it may
/// treat as it likes.
class ScriptedServer {
 public:
  /// What the function does with one connection after one request. False: it is closed.
  class Peer {
   public:
    explicit Peer(int fd) : fd_(fd) {}
    /// False when the other side has gone.
    bool Send(const std::string& bytes) const;
    /// "HTTP/1.1 200 OK", with the length of the body.
    bool Answer(const std::string& body, const std::string& status = "200 OK") const;
    /// The connection is reset when it is closed.
    void ResetAtEnd() const;
    /// Returns when the other side has gone.
    void AwaitEnd() const;

   private:
    const int fd_;
  };
  using Script = std::function<bool(const std::string& request, const Peer& peer)>;

  explicit ScriptedServer(Script script);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  [[nodiscard]] std::string Url(const std::string& path = "/") const;
  /// All requests so far, with their bodies.
  Mailbox<std::string> requests;
  /// One item for each connection.
  Mailbox<int> connections;

 private:
  struct Connection {
    explicit Connection(int descriptor) : fd(descriptor) {}
    utils::UniqueFd fd;  // the server's mutex
    std::jthread thread;
  };

  void Serve();
  void ServeOne(Connection& connection);

  const Script script_;
  const utils::UniqueFd listener_;
  std::mutex mutex_;
  std::list<Connection> open_;  // mutex_; those that ended have no descriptor
  std::jthread thread_;
};

}  // namespace varnel::test
