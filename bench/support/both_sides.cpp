#include "support/both_sides.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

#include "support/process.h"

namespace varnel::bench {

using Clock = std::chrono::steady_clock;

BothSides::BothSides(Report& report, MqttLink& link, const Target& daemon, const Target& reference,
                     int qos)
    : report_(report), link_(link), sides_{Side{daemon}, Side{reference}}, qos_(qos) {
  for (const Side& side : sides_) {
    link_.Subscribe(side.target.response_topic, qos_);
    for (int warm_up = 0; warm_up < 200; ++warm_up) {
      RoundTrip(link_, side.target, ++id_, "", qos_);
    }
  }
}

void BothSides::OneInFlight(int samples) {
  Restart();
  for (int sample = 0; sample < samples; ++sample) {
    for (Side& side : sides_) {
      side.samples.push_back(RoundTrip(link_, side.target, ++id_, "", qos_));
      ++side.requests;
    }
  }
}

void BothSides::Throughput(int in_flight, int blocks, int size) {
  Restart();
  for (int block = 0; block < blocks; ++block) {
    for (Side& side : sides_) {
      side.samples.push_back(Block(side.target, in_flight, size));
      side.requests += size;
    }
  }
  const std::string name = fmt::format("requests per second, {} in flight, ", in_flight);
  for (size_t side = 0; side < sides_.size(); ++side) {
    report_.Figure(name + sides_.at(side).target.name, At(side, 0.5), "1/s");
  }
  report_.AtLeast(name + "ratio", At(0, 0.5) / At(1, 0.5), 0.8);
}

void BothSides::Compare(const std::string& name, double share, double limit) {
  for (size_t side = 0; side < sides_.size(); ++side) {
    report_.Figure(name + ", " + sides_.at(side).target.name, At(side, share), "ms");
  }
  report_.AtMost(name + ", ratio", At(0, share) / At(1, share), limit);
}

void BothSides::CompareCpu(const std::string& name) {
  if (sides_[0].target.pid == 0 || sides_[1].target.pid == 0) {
    return;
  }
  for (const Side& side : sides_) {
    report_.Figure(name + ", " + side.target.name, CpuMicroseconds(side), "us");
  }
  report_.AtMost(name + ", ratio", CpuMicroseconds(sides_[0]) / CpuMicroseconds(sides_[1]), 1.5);
}

double BothSides::At(size_t side, double share) const {
  return Percentile(sides_.at(side).samples, share);
}

void BothSides::Restart() {
  for (Side& side : sides_) {
    side.samples.clear();
    side.requests = 0;
    side.cpu_start = side.target.pid != 0 ? CpuSeconds(side.target.pid) : 0;
  }
}

// Requests per second. Answers that arrive together are replaced by requests that leave together,
// so that the requester costs as little as possible.
double BothSides::Block(const Target& target, int in_flight, int size) {
  const auto start = Clock::now();
  int sent = 0;
  const auto send = [&](int more) {
    for (more = std::min(more, size - sent); more > 0; --more, ++sent) {
      link_.Queue(target.request_topic, RequestText(++id_, target.method), qos_);
    }
    link_.Flush();
  };
  send(in_flight);
  for (int answered = 0; answered < size;) {
    int arrived = 0;
    for (auto message = link_.Receive(std::chrono::seconds(5)); message;
         message = link_.Receive(std::chrono::seconds(0))) {
      ++arrived;
    }
    if (arrived == 0) {
      throw std::runtime_error(fmt::format("requests were lost at {} in flight", in_flight));
    }
    answered += arrived;
    send(arrived);
  }
  return size / (Since(start) / 1000);
}

double BothSides::CpuMicroseconds(const Side& side) {
  return (CpuSeconds(side.target.pid) - side.cpu_start) * 1e6 / static_cast<double>(side.requests);
}

}  // namespace varnel::bench
