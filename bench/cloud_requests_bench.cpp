// Requests that come through the cloud's broker, against an echo that is there over TLS with a
// client certificate as the daemon is. Runs on the host. Options: --board, --cloud, the
// directories; --echo, the echo's name in the cloud.
#include "support/both_sides.h"
#include "support/cloud_side.h"

namespace {

using namespace varnel::bench;

int Measure(const Options& options) {
  CloudSide side(options);
  side.Ask("set_region", {{"region", "int"}});
  side.AwaitStatus("connected");
  const auto at = [](const std::string& name, const std::string& who, const std::string& method) {
    return Target{name, who + "/request", who + "/response", method};
  };
  Report report;
  MqttLink link = side.TheCloud().Link("cloud-requests-bench");
  BothSides sides(report, link, at("daemon", side.SerialNumber(), "camera.get_status"),
                  at("reference", options.Text("echo"), "bench.echo"), 1);
  sides.OneInFlight(options.Number("samples", 2000));
  sides.Compare("cloud round trip p50, one in flight", 0.5, 1.5);
  sides.Throughput(options.Number("in-flight", 16), options.Number("blocks", 10),
                   options.Number("block-size", 2000));
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
