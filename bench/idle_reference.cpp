// The least that a logging process on the broker takes: the MQTT library, connected and subscribed,
// and a rotating log that is flushed every ten seconds. Runs until it is killed; with "--once yes"
// it ends when connected.
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdio>

#include "support/paho_link.h"
#include "support/report.h"

namespace {

int Idle(const varnel::bench::Options& options) {
  const std::string log = options.Text("log", "/tmp/idle_reference.log");
  spdlog::set_default_logger(spdlog::rotating_logger_mt("reference", log, 10u << 20, 5));
  spdlog::flush_every(std::chrono::seconds(10));
  varnel::bench::PahoLink link(options.Text("host", "127.0.0.1"), options.Number("port", 1883),
                               "idle-reference-" + std::to_string(getpid()), {});
  spdlog::info("connected");
  if (options.Text("once", "no") == "yes") {
    _exit(0);
  }
  link.Subscribe("bench/idle");
  std::puts("ready");
  std::fflush(stdout);
  pause();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  return varnel::bench::Guarded(argc, argv, Idle);
}
