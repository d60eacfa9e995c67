// The least that a logging process on the broker takes: the MQTT library, connected and subscribed,
// a rotating log that is flushed every ten seconds, the library for HTTP, and a look at the state
// of things once a second ("--looks N": N times). Runs until it is killed; with "--once yes" it
// ends when connected.
#include <curl/curl.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "support/paho_link.h"
#include "support/report.h"

namespace {

int Idle(const varnel::bench::Options& options) {
  const std::string log = options.Text("log", "/tmp/idle_reference.log");
  spdlog::set_default_logger(spdlog::rotating_logger_mt("reference", log, 10u << 20, 5));
  spdlog::flush_every(std::chrono::seconds(10));
  curl_global_init(CURL_GLOBAL_DEFAULT);
  varnel::bench::PahoLink link(varnel::bench::SettingsOf(options, "idle-reference"), {});
  spdlog::info("connected");
  if (options.Text("once", "no") == "yes") {
    _exit(0);
  }
  link.Subscribe(options.Text("topic", "bench/idle"));
  std::puts("ready");
  std::fflush(stdout);
  const std::chrono::milliseconds pause(1000 / options.Number("looks", 1));
  for (;;) std::this_thread::sleep_for(pause);
}

}  // namespace

int main(int argc, char** argv) {
  return varnel::bench::Guarded(argc, argv, Idle);
}
