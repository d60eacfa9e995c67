#pragma once

#include <array>
#include <string>
#include <vector>

#include "support/caller.h"
#include "support/report.h"

namespace varnel::bench {

/// The same load on the daemon and on a reference, taking turns over one link; the figures go into
/// a report. Whatever is lost throws std::runtime_error.
class BothSides {
 public:
  /// Subscribes to the answers of both and calls each a few times, which is not measured.
  BothSides(Report& report, MqttLink& link, const Target& daemon, const Target& reference, int qos);

  void OneInFlight(int samples);
  /// Blocks of `size` requests of which `in_flight` are on their way; at least 0.8 of the
  /// reference's rate.
  void Throughput(int in_flight, int blocks, int size);

  /// What the last measurement gave: milliseconds as a percentile of both sides.
  void Compare(const std::string& name, double share, double limit);
  /// Nothing where the processes are not known.
  void CompareCpu(const std::string& name);
  /// Milliseconds of the daemon (0) or the reference (1).
  [[nodiscard]] double At(size_t side, double share) const;

 private:
  struct Side {
    Target target;
    std::vector<double> samples{};  // milliseconds, or requests per second
    double cpu_start = 0;
    int64_t requests = 0;
  };

  void Restart();
  double Block(const Target& target, int in_flight, int size);
  static double CpuMicroseconds(const Side& side);

  Report& report_;
  MqttLink& link_;
  std::array<Side, 2> sides_;
  const int qos_;
  uint64_t id_ = 0;
};

}  // namespace varnel::bench
