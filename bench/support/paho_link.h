#pragma once

#include <MQTTAsync.h>

#include <functional>
#include <future>
#include <mutex>
#include <string>

#include "support/report.h"

namespace varnel::bench {

/// Where a link goes, and how.
struct PahoSettings {
  std::string host = "127.0.0.1";
  int port = 1883;
  std::string client_id{};
  int qos = 0;
  /// A directory with ca.crt, client.crt and client.key; empty: no TLS.
  std::string certificates{};
};
/// Of the options --host, --port, --qos and --certificates; the client id is the name and the
/// process.
PahoSettings SettingsOf(const Options& options, const std::string& name);

/// The barest use of the MQTT library: MQTT 5, TCP_NODELAY. What the daemon is measured against.
class PahoLink {
 public:
  /// Called on the library's receive thread.
  using Listener = std::function<void(std::string payload)>;

  /// Returns when connected; throws std::runtime_error when that fails.
  PahoLink(const PahoSettings& settings, Listener listener);
  ~PahoLink();
  PahoLink(const PahoLink&) = delete;
  PahoLink& operator=(const PahoLink&) = delete;

  /// Returns when the broker has acknowledged.
  void Subscribe(const std::string& topic);
  /// Callable from any thread; waits while the library's buffer is full.
  void Publish(const std::string& topic, const std::string& payload);

 private:
  void Create();
  void Connect();

  const PahoSettings settings_;
  Listener listener_;
  MQTTAsync client_ = nullptr;
  std::mutex send_mutex_;
};

}  // namespace varnel::bench
