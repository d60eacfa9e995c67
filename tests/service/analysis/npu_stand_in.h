#pragma once

#include <dlfcn.h>

#include <climits>
#include <cstdint>
#include <filesystem>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "service/analysis/network/rknn_api.h"

namespace varnel::service {

/// A network as the stand-in of the NPU's runtime reports it.
struct ScriptedNetwork {
  TensorCounts counts;
  std::vector<TensorAttributes> inputs;
  std::vector<TensorAttributes> outputs;
  /// Of each output; one without values has no buffer.
  std::vector<std::vector<float>> values;

  void AddOutput(const std::vector<uint32_t>& dims) {
    TensorAttributes tensor;
    size_t elements = 1;
    for (const uint32_t dim : dims) {
      tensor.dims[tensor.dim_count++] = dim;
      elements *= dim;
    }
    tensor.element_count = static_cast<uint32_t>(elements);
    outputs.push_back(tensor);
    values.emplace_back(elements, 0.0F);
    counts.outputs = static_cast<uint32_t>(outputs.size());
  }

  static ScriptedNetwork OfInput(uint32_t width, uint32_t height) {
    ScriptedNetwork network;
    network.counts.inputs = 1;
    network.inputs.resize(1);
    network.inputs[0].dim_count = 4;
    network.inputs[0].dims = {1, height, width, 3};
    network.inputs[0].format = TensorFormat::kNhwc;
    return network;
  }

  /// Three branches of distances and scores, in which nothing is found yet.
  static ScriptedNetwork Detecting(uint32_t width, uint32_t height, uint32_t classes,
                                   uint32_t dfl_len = 16) {
    ScriptedNetwork network = OfInput(width, height);
    for (const uint32_t stride : {8U, 16U, 32U}) {
      network.AddOutput({1, 4 * dfl_len, height / stride, width / stride});
      network.AddOutput({1, classes, height / stride, width / stride});
    }
    return network;
  }

  /// Values of one class at most 1, as probabilities.
  static ScriptedNetwork Classifying(uint32_t width, uint32_t height, std::vector<float> answer) {
    ScriptedNetwork network = OfInput(width, height);
    network.AddOutput({1, static_cast<uint32_t>(answer.size())});
    network.values[0] = std::move(answer);
    return network;
  }

  /// Puts an object into a cell of a branch, with whole distances (in cells) to its four edges.
  void Place(size_t branch, uint32_t row, uint32_t column, uint32_t cls, float score,
             const std::array<uint32_t, 4>& distances) {
    const TensorAttributes& boxes = outputs[branch * 2];
    const size_t plane = size_t{boxes.dims[2]} * boxes.dims[3];
    const size_t cell = size_t{row} * boxes.dims[3] + column;
    for (size_t side = 0; side < 4; ++side) {
      const size_t bin = side * boxes.dims[1] / 4 + distances[side];
      values[branch * 2][bin * plane + cell] = 80.0F;  // next to it, all others vanish
    }
    values[branch * 2 + 1][cls * plane + cell] = score;
  }
};

/// What the stand-in does and what it has seen. One for the process.
struct NpuScript {
  struct Failure {
    int code = -1;
    int passing = 0;        ///< calls that pass before
    int failing = INT_MAX;  ///< calls that fail then
  };

  std::map<std::string, ScriptedNetwork> networks;  ///< by file name; other files fail with -6
  std::map<std::string, Failure> failures;          ///< by function; a failing run ends its network
  /// Holds the next run back until it is opened.
  struct Gate {
    std::promise<void> reached;
    std::promise<void> open;
  };
  std::shared_ptr<Gate> gate;
  bool raise_priority = false;

  std::map<RknnHandle, ScriptedNetwork> loaded;
  std::set<RknnHandle> dead;  ///< serve nothing but their end
  size_t highest_loaded = 0;
  std::map<RknnHandle, std::string> files;  ///< of `loaded`
  int inits = 0;
  int runs = 0;
  std::set<void*> outputs;         ///< handed out and not given back
  int wrong_calls = 0;             ///< with a handle or an output that is none
  std::optional<RknnInput> input;  ///< of the last run
  std::vector<uint8_t> picture;    ///< its bytes
};

/// The stand-in's path, for RknnLibrary, and its script, which a test may replace.
inline constexpr const char* kNpuStandIn = VARNEL_NPU_STAND_IN;
inline NpuScript& TheNpuScript() {
  static void* const library = ::dlopen(kNpuStandIn, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(::dlerror());
  using Getter = NpuScript* (*)();
  return *reinterpret_cast<Getter>(::dlsym(library, "npu_stand_in_script"))();
}

}  // namespace varnel::service
