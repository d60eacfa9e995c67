// The JSON-RPC round trip through the daemon against the reference echo, interleaved on one broker.
#include "support/both_sides.h"

namespace {

using namespace varnel::bench;

// The delayed-acknowledgement step is 40 ms; a tenth of the samples may suffer from the machine.
void QosOne(Report& report, const Options& options) {
  MqttLink link = Connect(options, "json-rpc-bench-qos1");
  BothSides sides(report, link, DaemonTarget(options), ReferenceTarget(options), 1);
  sides.OneInFlight(options.Number("qos1-samples", 300));
  report.Figure("round trip p50 of a QoS 1 requester, daemon", sides.At(0, 0.5), "ms");
  report.Figure("round trip p50 of a QoS 1 requester, reference", sides.At(1, 0.5), "ms");
  report.AtMost("round trip p90 of a QoS 1 requester, ms", sides.At(0, 0.9), 20);
}

int Measure(const Options& options) {
  Report report;
  MqttLink link = Connect(options, "json-rpc-bench");
  BothSides sides(report, link, DaemonTarget(options), ReferenceTarget(options), 0);
  sides.OneInFlight(options.Number("samples", 5000));
  sides.Compare("round trip p50, one in flight", 0.5, 1.25);
  sides.Compare("round trip p99, one in flight", 0.99, 2);
  sides.CompareCpu("processor time per request, one in flight");
  sides.Throughput(64, options.Number("blocks", 10), options.Number("block-size", 4000));
  sides.CompareCpu("processor time per request, 64 in flight");
  QosOne(report, options);
  return report.ExitStatus();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
