#include "support/caller.h"

#include <fmt/format.h>

#include <cstdlib>
#include <stdexcept>

namespace varnel::bench {
namespace {

constexpr std::chrono::milliseconds kAnswerTimeout{15000};

}  // namespace

Target DaemonTarget(const Options& options) {
  const std::string topics = options.Text("daemon-topics", "camera/request,camera/response");
  const size_t comma = topics.find(',');
  return {"daemon", topics.substr(0, comma), topics.substr(comma + 1), "camera.get_status",
          options.Number("daemon-pid", 0)};
}

Target ReferenceTarget(const Options& options) {
  return {"reference", kEchoRequestTopic, kEchoResponseTopic, "bench.echo",
          options.Number("reference-pid", 0)};
}

MqttLink Connect(const Options& options, const std::string& client_id) {
  return MqttLink(options.Text("host", "127.0.0.1"), options.Number("port", 1883), client_id);
}

std::string RequestText(uint64_t id, const std::string& method, const std::string& params) {
  return fmt::format(R"({{"jsonrpc":"2.0","id":{},"method":"{}"{}{}}})", id, method,
                     params.empty() ? "" : R"(,"params":)", params);
}

std::optional<uint64_t> IdOf(const std::string& payload) {
  const size_t at = payload.find(R"("id":)");
  if (at == std::string::npos) {
    return std::nullopt;
  }
  return std::strtoull(payload.c_str() + at + 5, nullptr, 10);
}

double RoundTrip(MqttLink& link, const Target& target, uint64_t id, const std::string& params,
                 int qos) {
  const std::string request = RequestText(id, target.method, params);
  const auto start = std::chrono::steady_clock::now();
  link.Publish(target.request_topic, request, qos);
  AwaitAnswer(link, id, kAnswerTimeout);
  return Since(start);
}

std::string AwaitAnswer(MqttLink& link, uint64_t id, std::chrono::milliseconds timeout) {
  while (auto message = link.Receive(timeout)) {
    if (IdOf(message->payload) == id) {
      return message->payload;
    }
  }
  throw std::runtime_error(fmt::format("no answer to request {}", id));
}

double Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

}  // namespace varnel::bench
