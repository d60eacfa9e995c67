#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel::board {

/// What a network's file says about the network.
struct OnnxFile {
  struct Tensor {
    std::string name;
    std::vector<uint32_t> dims;  ///< 0 for a size that the file leaves open
  };
  std::vector<Tensor> inputs;
  std::vector<Tensor> outputs;
  bool quantised = false;  ///< its metadata says so: "varnel-virtual-npu" is "quantised"

  /// Nothing when the bytes hold no network.
  static std::optional<OnnxFile> Parse(std::string_view bytes);
};

}  // namespace varnel::board
