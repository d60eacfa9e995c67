#include "service/analysis/network/loaded_network.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>

#include "utils/log_text.h"

namespace varnel::service {
namespace {

// Far beyond every network that the hardware runs, and small enough for any product of sizes.
constexpr uint64_t kMaxElements = uint64_t{1} << 28U;

std::span<const uint32_t> Dims(const TensorAttributes& tensor) {
  return std::span(tensor.dims).first(std::min(tensor.dim_count, kMaxTensorDims));
}

/// Pictures are RGB.
bool InputIsServed(const LoadedNetwork& network) {
  const TensorAttributes& input = network.inputs[0];
  return input.dim_count == 4 && input.dims[0] == 1 && network.channel == 3 && network.width > 0 &&
         network.height > 0;
}

bool HasShape(const TensorAttributes& tensor) {
  if (tensor.dim_count == 0 || tensor.dim_count > kMaxTensorDims) return false;
  uint64_t elements = 1;
  for (const uint32_t dim : Dims(tensor)) {
    if (dim == 0 || dim > kMaxElements / elements) return false;
    elements *= dim;
  }
  return tensor.element_count >= elements;
}

bool IsGrid(const TensorAttributes& tensor) {
  return tensor.dim_count == 4 && tensor.dims[0] == 1 && tensor.format != TensorFormat::kNhwc;
}

bool AreBoxesAndScores(const TensorAttributes& boxes, const TensorAttributes& scores) {
  return IsGrid(boxes) && IsGrid(scores) && boxes.dims[1] % 4 == 0 &&
         boxes.dims[2] == scores.dims[2] && boxes.dims[3] == scores.dims[3];
}

std::string BranchRefusal(const LoadedNetwork& network, size_t first) {
  const TensorAttributes& boxes = network.outputs[first];
  const TensorAttributes& scores = network.outputs[first + 1];
  if (!AreBoxesAndScores(boxes, scores) || boxes.dims[2] > static_cast<uint32_t>(network.height)) {
    return fmt::format("its outputs {} and {} are no boxes and scores of one grid", first,
                       first + 1);
  }
  if (scores.dims[1] == network.use.classes) return {};
  return fmt::format("it tells {} classes apart, its labels are {}", scores.dims[1],
                     network.use.classes);
}

std::string DetectingRefusal(const LoadedNetwork& network) {
  const size_t per_branch = network.OutputsPerBranch();
  if (per_branch < 2 || network.outputs.size() % LoadedNetwork::kBranches != 0)
    return fmt::format("its {} outputs are no three branches", network.outputs.size());
  for (size_t i = 0; i < LoadedNetwork::kBranches; ++i) {
    if (std::string refusal = BranchRefusal(network, i * per_branch); !refusal.empty())
      return refusal;
  }
  return {};
}

std::string ClassifyingRefusal(const LoadedNetwork& network) {
  const size_t values = Elements(network.outputs[0]);
  if (network.outputs.size() != 1)
    return fmt::format("its outputs are {}, not 1", network.outputs.size());
  if (values >= network.use.classes) return {};
  return fmt::format("it has {} values, at least {} are needed", values, network.use.classes);
}

std::string Shape(const TensorAttributes& tensor) {
  return fmt::format("{}", fmt::join(Dims(tensor), "x"));
}

std::string Version(const std::array<char, 256>& text) {
  const std::string version(text.begin(), std::find(text.begin(), text.end(), '\0'));
  return version.empty() ? "unknown" : utils::LogText(version);
}

}  // namespace

LoadedNetwork::~LoadedNetwork() {
  if (handle != 0) api.destroy(handle);
}

size_t Elements(const TensorAttributes& tensor) {
  size_t elements = 1;
  for (const uint32_t dim : Dims(tensor)) elements *= dim;
  return elements;
}

std::string Refusal(const LoadedNetwork& network) {
  if (network.is_quant) return "it is quantised, only float networks are served";
  if (!InputIsServed(network)) return "its input is not one RGB picture";
  if (!std::all_of(network.outputs.begin(), network.outputs.end(), HasShape))
    return "an output has no shape, or less values than its shape";
  return network.use.kind == NetworkKind::kDetecting ? DetectingRefusal(network)
                                                     : ClassifyingRefusal(network);
}

std::string Description(const LoadedNetwork& network) {
  std::string outputs;
  for (const TensorAttributes& output : network.outputs) outputs += " " + Shape(output);
  return fmt::format("input {}x{}x{}, outputs{}, runtime {}, driver {}", network.width,
                     network.height, network.channel, outputs, Version(network.versions.runtime),
                     Version(network.versions.driver));
}

}  // namespace varnel::service
