#pragma once

#include <MQTTAsync.h>

#include <functional>
#include <future>
#include <mutex>
#include <string>

namespace varnel::bench {

/// The barest use of the MQTT library: MQTT 5, QoS 0, TCP_NODELAY. What the daemon is measured
/// against.
class PahoLink {
 public:
  /// Called on the library's receive thread.
  using Listener = std::function<void(std::string payload)>;

  /// Returns when connected; throws std::runtime_error when that fails.
  PahoLink(const std::string& host, int port, const std::string& client_id, Listener listener);
  ~PahoLink();
  PahoLink(const PahoLink&) = delete;
  PahoLink& operator=(const PahoLink&) = delete;

  /// Returns when the broker has acknowledged.
  void Subscribe(const std::string& topic);
  /// Callable from any thread; waits while the library's buffer is full.
  void Publish(const std::string& topic, const std::string& payload);

 private:
  void Create(const std::string& uri, const std::string& client_id);
  void Connect();

  Listener listener_;
  MQTTAsync client_ = nullptr;
  std::mutex send_mutex_;
};

}  // namespace varnel::bench
