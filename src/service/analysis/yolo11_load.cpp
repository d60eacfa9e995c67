#include <sys/resource.h>

#include "service/analysis/image_print.h"
#include "service/analysis/rknn_library.h"
#include "service/analysis/yolo11.h"

namespace varnel::service {

namespace {

// Far beyond every network that the hardware runs, and small enough for any product of sizes.
constexpr uint32_t kMaxTensors = 64;
constexpr uint32_t kMaxSide = 8192;
constexpr uint64_t kMaxElements = uint64_t{1} << 28U;

/// The runtime raises the priority of the process that loads a network. Programs that the process
/// has started have groups of their own and keep theirs.
void RestorePriority() {
  ::setpriority(PRIO_PROCESS, 0, 0);
  ::setpriority(PRIO_PGRP, 0, 0);
}

const RknnApi* FindRuntime(NpuContext& context) {
  if (context.library == nullptr) context.library = &RknnLibrary::Board();
  const RknnApi* api = context.library->Api();
  if (api == nullptr) PrintMessage("no NPU runtime: %s\n", context.library->Error().c_str());
  return api;
}

int QueryCounts(const RknnApi& api, NpuContext& context) {
  TensorCounts counts;
  const int code = api.query(context.handle, RknnQuery::kInOutNum, &counts, sizeof counts);
  context.input_count = counts.inputs;
  context.output_count = counts.outputs;
  return code;
}

int QueryAttributes(const RknnApi& api, RknnHandle handle, RknnQuery query, uint32_t count,
                    std::vector<TensorAttributes>& attributes) {
  attributes.assign(count, {});
  for (uint32_t i = 0; i < count; ++i) {
    attributes[i].index = i;
    const int code = api.query(handle, query, &attributes[i], sizeof attributes[i]);
    if (code != kRknnSuccess) return code;
  }
  return kRknnSuccess;
}

bool Queried(int code) {
  if (code != kRknnSuccess) PrintMessage("rknn_query fail! ret=%d\n", code);
  return code == kRknnSuccess;
}

bool CountsAreServed(const NpuContext& context) {
  return context.input_count == 1 && context.output_count >= 1 &&
         context.output_count <= kMaxTensors;
}

bool IsQuantised(const TensorAttributes& output) {
  return output.quantisation == TensorQuantisation::kAffineAsymmetric &&
         output.type == TensorType::kInt8;
}

void TakeInputShape(NpuContext& context) {
  const TensorAttributes& input = context.inputs[0];
  const bool nchw = input.format == TensorFormat::kNchw;
  const auto side = [&](size_t of_nchw, size_t of_nhwc) {
    const uint32_t value = input.dims[nchw ? of_nchw : of_nhwc];
    return value <= kMaxSide ? static_cast<int32_t>(value) : 0;
  };
  context.channel = side(1, 3);
  context.height = side(2, 1);
  context.width = side(3, 2);
}

/// Pictures are RGB.
bool InputIsServed(const NpuContext& context) {
  const TensorAttributes& input = context.inputs[0];
  return input.dim_count == 4 && input.dims[0] == 1 && context.channel == 3 && context.width > 0 &&
         context.height > 0;
}

bool HasShape(const TensorAttributes& tensor) {
  if (tensor.dim_count == 0 || tensor.dim_count > kMaxTensorDims) return false;
  uint64_t elements = 1;
  for (uint32_t i = 0; i < tensor.dim_count; ++i) {
    if (tensor.dims[i] == 0 || tensor.dims[i] > kMaxElements / elements) return false;
    elements *= tensor.dims[i];
  }
  return true;
}

bool OutputsHaveShapes(const NpuContext& context) {
  for (const TensorAttributes& output : context.outputs) {
    if (!HasShape(output)) return false;
  }
  return true;
}

/// Why the network cannot be run; null when it can.
const char* Refusal(const NpuContext& context) {
  if (context.is_quant) return "it is quantised, only float networks are served";
  if (!InputIsServed(context)) return "its input is not one RGB picture";
  if (!OutputsHaveShapes(context)) return "an output has no shape";
  return nullptr;
}

bool Refuse(const std::string& path, const char* reason) {
  PrintMessage("network %s refused: %s\n", path.c_str(), reason);
  return false;
}

/// Reads everything that is to be known of the loaded network.
bool Describe(const RknnApi& api, const std::string& path, NpuContext& context) {
  if (!Queried(QueryCounts(api, context))) return false;
  if (!CountsAreServed(context)) return Refuse(path, "its numbers of inputs and outputs");
  if (!Queried(QueryAttributes(api, context.handle, RknnQuery::kInputAttr, context.input_count,
                               context.inputs)) ||
      !Queried(QueryAttributes(api, context.handle, RknnQuery::kOutputAttr, context.output_count,
                               context.outputs))) {
    return false;
  }
  context.is_quant = IsQuantised(context.outputs[0]);
  TakeInputShape(context);
  const char* refusal = Refusal(context);
  return refusal == nullptr || Refuse(path, refusal);
}

}  // namespace

NpuContext::~NpuContext() {
  release_yolo11_model(*this);
}

int init_yolo11_model(const std::string& path, NpuContext& context) {
  release_yolo11_model(context);
  const RknnApi* api = FindRuntime(context);
  if (api == nullptr) return -1;
  std::string model = path;  // the runtime asks for a pointer that it could write to
  const int code = api->init(&context.handle, model.data(), 0, 0, nullptr);
  RestorePriority();
  if (code != kRknnSuccess) {
    PrintMessage("rknn_init fail! ret=%d\n", code);
    context.handle = 0;
    return -1;
  }
  if (Describe(*api, path, context)) return 0;
  release_yolo11_model(context);
  return -1;
}

int release_yolo11_model(NpuContext& context) {
  context.inputs = {};
  context.outputs = {};
  context.input_count = 0;
  context.output_count = 0;
  context.is_quant = false;
  if (context.handle != 0) context.library->Api()->destroy(context.handle);
  context.handle = 0;
  return 0;
}

}  // namespace varnel::service
