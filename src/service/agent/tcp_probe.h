#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "service/agent/agent_ports.h"

namespace varnel::service {

/// Tries to connect over TCP, and leaves at once. Look-ups run on threads of their own, which are
/// left behind when a name server keeps silent; not more than a few of them. One thread.
class TcpProbe {
 public:
  static constexpr std::chrono::seconds kLookUpTimeout{5};
  static constexpr std::chrono::seconds kConnectTimeout{3};

  /// @param stop asked several times a second: true ends a probe
  explicit TcpProbe(std::function<bool()> stop);

  [[nodiscard]] ProbeResult operator()(const std::string& host, const std::string& port) const;

 private:
  struct LookUp;
  struct Running;

  [[nodiscard]] std::shared_ptr<LookUp> Resolve(const std::string& host,
                                                const std::string& port) const;

  const std::function<bool()> stop_;
  const std::shared_ptr<Running> running_;
};

}  // namespace varnel::service
