#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "support/report.h"
#include "virtual_board/client/mqtt_link.h"

namespace varnel::bench {

using board::Message;
using board::MqttLink;

/// Who is measured: where it takes requests and which process it is.
struct Target {
  std::string name;
  std::string request_topic;
  std::string response_topic;
  std::string method;
  pid_t pid = 0;
};
/// The daemon's cheapest method on its usual topics; --daemon-pid and, for trials, --daemon-topics
/// "a/request,a/response".
Target DaemonTarget(const Options& options);
/// The reference echo; --reference-pid.
Target ReferenceTarget(const Options& options);

inline constexpr const char* kEchoRequestTopic = "bench/request";
inline constexpr const char* kEchoResponseTopic = "bench/response";

/// A link to the broker of the options --host and --port.
MqttLink Connect(const Options& options, const std::string& client_id);

/// A request's text; `params` is JSON text or empty.
std::string RequestText(uint64_t id, const std::string& method, const std::string& params = "");

/// The "id" of an answer to such a request without parsing all of it.
std::optional<uint64_t> IdOf(const std::string& payload);

/// Sends one request and waits for its answer; milliseconds. Throws std::runtime_error without one.
double RoundTrip(MqttLink& link, const Target& target, uint64_t id, const std::string& params = "",
                 int qos = 0);

/// Waits for the answer that carries `id`, dropping others; throws std::runtime_error when it does
/// not come in time.
std::string AwaitAnswer(MqttLink& link, uint64_t id, std::chrono::milliseconds timeout);

/// Milliseconds since `start`.
double Since(std::chrono::steady_clock::time_point start);

}  // namespace varnel::bench
