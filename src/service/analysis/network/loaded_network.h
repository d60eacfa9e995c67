#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "service/analysis/network/rknn_api.h"

namespace varnel::service {

enum class NetworkKind { kDetecting, kClassifying };

/// What a network is loaded for.
struct NetworkUse {
  NetworkKind kind = NetworkKind::kDetecting;
  /// A detecting network tells exactly these apart; a classifying one has at least these values.
  size_t classes = 0;
};

/// A network on the NPU, and what the runtime says of it. Only the NPU's thread makes and ends it.
struct LoadedNetwork {
  LoadedNetwork(const RknnApi& runtime, const NetworkUse& its_use) : api(runtime), use(its_use) {}
  ~LoadedNetwork();
  LoadedNetwork(const LoadedNetwork&) = delete;
  LoadedNetwork& operator=(const LoadedNetwork&) = delete;

  const RknnApi api;
  const NetworkUse use;
  RknnHandle handle = 0;  ///< of the runtime, 0 when it did not load
  uint32_t input_count = 0;
  uint32_t output_count = 0;
  std::vector<TensorAttributes> inputs;
  std::vector<TensorAttributes> outputs;
  int32_t channel = 0;
  int32_t width = 0;
  int32_t height = 0;
  bool is_quant = false;
  RuntimeVersions versions;  ///< empty where the runtime does not tell

  /// Outputs of each of the three branches of a detecting network.
  [[nodiscard]] size_t OutputsPerBranch() const { return outputs.size() / kBranches; }
  static constexpr size_t kBranches = 3;
};

/// The product of the sizes.
[[nodiscard]] size_t Elements(const TensorAttributes& tensor);

/// Why the network cannot be used as it is meant to; empty when it can.
[[nodiscard]] std::string Refusal(const LoadedNetwork& network);

/// "input 640x640x3, outputs 1x64x80x80 ..., runtime 2.3.2, driver 0.9.6" for log lines.
[[nodiscard]] std::string Description(const LoadedNetwork& network);

}  // namespace varnel::service
