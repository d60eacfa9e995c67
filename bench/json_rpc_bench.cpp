// The JSON-RPC round trip through the daemon against the reference echo, interleaved on one broker.
#include <fmt/format.h>

#include <array>
#include <stdexcept>

#include "support/caller.h"
#include "support/process.h"

namespace {

using namespace varnel::bench;
using Clock = std::chrono::steady_clock;

struct Side {
  Target target;
  std::vector<double> samples;  // milliseconds, or requests per second
  double cpu_start = 0;
  int64_t requests = 0;

  double CpuMicroseconds() const {
    return (CpuSeconds(target.pid) - cpu_start) * 1e6 / static_cast<double>(requests);
  }
};

class JsonRpcBench {
 public:
  explicit JsonRpcBench(const Options& options)
      : options_(options), link_(Connect(options, "json-rpc-bench")) {
    for (const Side& side : sides_) {
      link_.Subscribe(side.target.response_topic, 0);
      for (int warm_up = 0; warm_up < 200; ++warm_up) {
        RoundTrip(link_, side.target, ++id_);
      }
    }
  }

  int Measure() {
    OneInFlight(options_.Number("samples", 5000));
    Throughput(options_.Number("blocks", 10), options_.Number("block-size", 4000));
    QosOne(options_.Number("qos1-samples", 300));
    return report_.ExitStatus();
  }

 private:
  static constexpr int kInFlight = 64;

  void Restart() {
    for (Side& side : sides_) {
      side.samples.clear();
      side.requests = 0;
      side.cpu_start = side.target.pid != 0 ? CpuSeconds(side.target.pid) : 0;
    }
  }

  void OneInFlight(int samples) {
    Restart();
    for (int sample = 0; sample < samples; ++sample) {
      for (Side& side : sides_) {
        side.samples.push_back(RoundTrip(link_, side.target, ++id_));
        ++side.requests;
      }
    }
    Compare("round trip p50, one in flight", 0.5, 1.25);
    Compare("round trip p99, one in flight", 0.99, 2);
    CompareCpu("processor time per request, one in flight");
  }

  // Milliseconds as a percentile of both sides.
  void Compare(const std::string& name, double share, double limit) {
    std::array<double, 2> values{};
    for (size_t side = 0; side < sides_.size(); ++side) {
      values.at(side) = Percentile(sides_.at(side).samples, share);
      report_.Figure(name + ", " + sides_.at(side).target.name, values.at(side), "ms");
    }
    report_.AtMost(name + ", ratio", values[0] / values[1], limit);
  }

  void CompareCpu(const std::string& name) {
    if (sides_[0].target.pid == 0 || sides_[1].target.pid == 0) {
      return;
    }
    for (const Side& side : sides_) {
      report_.Figure(name + ", " + side.target.name, side.CpuMicroseconds(), "us");
    }
    report_.AtMost(name + ", ratio", sides_[0].CpuMicroseconds() / sides_[1].CpuMicroseconds(),
                   1.5);
  }

  void Throughput(int blocks, int size) {
    Restart();
    for (int block = 0; block < blocks; ++block) {
      for (Side& side : sides_) {
        side.samples.push_back(Block(side.target, size));
        side.requests += size;
      }
    }
    std::array<double, 2> rates{};
    for (size_t side = 0; side < sides_.size(); ++side) {
      rates.at(side) = Percentile(sides_.at(side).samples, 0.5);
      report_.Figure("requests per second, 64 in flight, " + sides_.at(side).target.name,
                     rates.at(side), "1/s");
    }
    report_.AtLeast("requests per second, 64 in flight, ratio", rates[0] / rates[1], 0.8);
    CompareCpu("processor time per request, 64 in flight");
  }

  // Requests per second with kInFlight kept on their way. Answers that arrive together are replaced
  // by requests that leave together, so that the requester costs as little as possible.
  double Block(const Target& target, int size) {
    const auto start = Clock::now();
    int sent = 0;
    for (; sent < kInFlight; ++sent) {
      link_.Queue(target.request_topic, RequestText(++id_, target.method));
    }
    link_.Flush();
    for (int answered = 0; answered < size;) {
      int arrived = 0;
      for (auto message = link_.Receive(std::chrono::seconds(5)); message;
           message = link_.Receive(std::chrono::seconds(0))) {
        ++arrived;
      }
      if (arrived == 0) {
        throw std::runtime_error("requests were lost at 64 in flight");
      }
      answered += arrived;
      for (; arrived > 0 && sent < size; --arrived, ++sent) {
        link_.Queue(target.request_topic, RequestText(++id_, target.method));
      }
      link_.Flush();
    }
    return size / (Since(start) / 1000);
  }

  // The delayed-acknowledgement step is 40 ms; a tenth of the samples may suffer from the machine.
  void QosOne(int samples) {
    Restart();
    MqttLink link = Connect(options_, "json-rpc-bench-qos1");
    for (const Side& side : sides_) {
      link.Subscribe(side.target.response_topic, 1);
    }
    for (int sample = 0; sample < samples; ++sample) {
      for (Side& side : sides_) {
        side.samples.push_back(RoundTrip(link, side.target, ++id_, "", 1));
      }
    }
    report_.Figure("round trip p50 of a QoS 1 requester, daemon",
                   Percentile(sides_[0].samples, 0.5), "ms");
    report_.Figure("round trip p50 of a QoS 1 requester, reference",
                   Percentile(sides_[1].samples, 0.5), "ms");
    report_.AtMost("round trip p90 of a QoS 1 requester, ms", Percentile(sides_[0].samples, 0.9),
                   20);
  }

  const Options& options_;
  Report report_;
  MqttLink link_;
  std::array<Side, 2> sides_{Side{DaemonTarget(options_), {}}, Side{ReferenceTarget(options_), {}}};
  uint64_t id_ = 0;
};

int Measure(const Options& options) {
  return JsonRpcBench(options).Measure();
}

}  // namespace

int main(int argc, char** argv) {
  return Guarded(argc, argv, Measure);
}
