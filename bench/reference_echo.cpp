// What a JSON-RPC round trip costs at least with the same library: parse, hand to one of four
// workers, answer. Prints "ready" when it listens, and runs until it is killed.
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <nlohmann/json.hpp>
#include <thread>

#include "support/caller.h"
#include "support/paho_link.h"

namespace {

using varnel::bench::Options;
using varnel::bench::PahoLink;

/// Payloads on their way from the library's thread to the workers.
class Inbox {
 public:
  void Put(std::string payload) {
    {
      const std::lock_guard lock(mutex_);
      payloads_.push_back(std::move(payload));
    }
    arrived_.notify_one();
  }

  std::string Take() {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [this] { return !payloads_.empty(); });
    std::string payload = std::move(payloads_.front());
    payloads_.pop_front();
    return payload;
  }

 private:
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::string> payloads_;
};

std::string Answer(const std::string& payload) {
  const auto request = nlohmann::json::parse(payload);
  const nlohmann::json answer = {
      {"jsonrpc", "2.0"}, {"id", request.at("id")}, {"result", {{"state", "success"}}}};
  return answer.dump();
}

[[noreturn]] void Work(Inbox& inbox, PahoLink& link, const std::string& topic) {
  while (true) {
    link.Publish(topic, Answer(inbox.Take()));
  }
}

int Echo(const Options& options) {
  Inbox inbox;
  PahoLink link(varnel::bench::SettingsOf(options, "reference-echo"),
                [&](std::string payload) { inbox.Put(std::move(payload)); });
  const std::string answers = options.Text("response-topic", varnel::bench::kEchoResponseTopic);
  link.Subscribe(options.Text("request-topic", varnel::bench::kEchoRequestTopic));
  std::array<std::thread, 4> workers;
  for (std::thread& worker : workers) {
    worker = std::thread([&] { Work(inbox, link, answers); });
  }
  std::puts("ready");
  std::fflush(stdout);
  while (true) {
    pause();
  }
}

}  // namespace

int main(int argc, char** argv) {
  return varnel::bench::Guarded(argc, argv, Echo);
}
