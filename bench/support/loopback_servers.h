#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "utils/owned.h"

namespace varnel::bench {

/// Takes connections of the loopback, one after another, on a thread of its own.
class LoopbackServer {
 public:
  using Serve = std::function<void(int peer)>;

  explicit LoopbackServer(Serve serve);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  /// "http://127.0.0.1:PORT/file"
  [[nodiscard]] std::string Url() const;

 private:
  void Run() const;

  const Serve serve_;
  const utils::UniqueFd listener_;
  std::jthread thread_;
};

/// Answers each connection's one request with so many zero bytes.
LoopbackServer::Serve SendZeros(int64_t bytes);
/// Takes the body of each PUT of a connection and forgets it; the answers have an ETag.
LoopbackServer::Serve SwallowPuts();

}  // namespace varnel::bench
