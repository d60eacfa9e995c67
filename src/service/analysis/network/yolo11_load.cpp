#include <sys/resource.h>

#include "service/analysis/network/rknn_library.h"
#include "service/analysis/network/yolo11.h"
#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/image_print.h"
#include "utils/log.h"

namespace varnel::service {

namespace {

constexpr const char* kTag = kAnalysisTag;
// Far beyond every network that the hardware runs.
constexpr uint32_t kMaxTensors = 64;
constexpr uint32_t kMaxSide = 8192;

/// The runtime raises the priority of the process that loads a network. Programs that the process
/// has started have groups of their own and keep theirs.
void RestorePriority() {
  ::setpriority(PRIO_PROCESS, 0, 0);
  ::setpriority(PRIO_PGRP, 0, 0);
}

/// Null, which is logged, when there is nothing to be called.
const RknnApi* FindRuntime(const Npu& npu) {
  const RknnLibrary& library = npu.library != nullptr ? *npu.library : RknnLibrary::Board();
  const std::string problem = library.Problem();
  if (problem.empty()) return library.Api();
  VLOG_ERROR(kTag, "{}", problem);
  return nullptr;
}

int QueryCounts(LoadedNetwork& network) {
  TensorCounts counts;
  const int code = network.api.query(network.handle, RknnQuery::kInOutNum, &counts, sizeof counts);
  network.input_count = counts.inputs;
  network.output_count = counts.outputs;
  return code;
}

int QueryAttributes(const LoadedNetwork& network, RknnQuery query, uint32_t count,
                    std::vector<TensorAttributes>& attributes) {
  attributes.assign(count, {});
  for (uint32_t i = 0; i < count; ++i) {
    attributes[i].index = i;
    const int code = network.api.query(network.handle, query, &attributes[i], sizeof attributes[i]);
    if (code != kRknnSuccess) return code;
  }
  return kRknnSuccess;
}

bool Queried(int code) {
  if (code != kRknnSuccess) PrintMessage("rknn_query fail! ret=%d\n", code);
  return code == kRknnSuccess;
}

/// Only for people: a runtime that does not tell is none the worse.
void QueryVersions(LoadedNetwork& network) {
  RuntimeVersions versions;
  if (network.api.query(network.handle, RknnQuery::kVersions, &versions, sizeof versions) == 0)
    network.versions = versions;
}

bool CountsAreServed(const LoadedNetwork& network) {
  return network.input_count == 1 && network.output_count >= 1 &&
         network.output_count <= kMaxTensors;
}

bool IsQuantised(const TensorAttributes& output) {
  return output.quantisation == TensorQuantisation::kAffineAsymmetric &&
         output.type == TensorType::kInt8;
}

void TakeInputShape(LoadedNetwork& network) {
  const TensorAttributes& input = network.inputs[0];
  const bool nchw = input.format == TensorFormat::kNchw;
  const auto side = [&](size_t of_nchw, size_t of_nhwc) {
    const uint32_t value = input.dims[nchw ? of_nchw : of_nhwc];
    return value <= kMaxSide ? static_cast<int32_t>(value) : 0;
  };
  network.channel = side(1, 3);
  network.height = side(2, 1);
  network.width = side(3, 2);
}

bool Refuse(const std::string& path, const std::string& reason) {
  VLOG_ERROR(kTag, "network {} refused: {}", path, reason);
  return false;
}

/// Reads everything that is to be known of the loaded network.
bool Describe(const std::string& path, LoadedNetwork& network) {
  if (!Queried(QueryCounts(network))) return false;
  if (!CountsAreServed(network)) {
    return Refuse(path, fmt::format("{} inputs and {} outputs are not served", network.input_count,
                                    network.output_count));
  }
  if (!Queried(
          QueryAttributes(network, RknnQuery::kInputAttr, network.input_count, network.inputs)) ||
      !Queried(QueryAttributes(network, RknnQuery::kOutputAttr, network.output_count,
                               network.outputs))) {
    return false;
  }
  QueryVersions(network);
  network.is_quant = IsQuantised(network.outputs[0]);
  TakeInputShape(network);
  const std::string refusal = Refusal(network);
  return refusal.empty() || Refuse(path, refusal);
}

/// What the NPU's thread needs to load a network, and what comes of it.
struct Loading {
  const std::string path;
  const RknnApi api;
  const NetworkUse use;
  std::shared_ptr<LoadedNetwork> network{};  ///< null after a failure

  void Load() {
    auto loaded = std::make_shared<LoadedNetwork>(api, use);
    std::string model = path;  // the runtime asks for a pointer that it could write to
    const int code = api.init(&loaded->handle, model.data(), 0, 0, nullptr);
    RestorePriority();
    if (code != kRknnSuccess) {
      PrintMessage("rknn_init fail! ret=%d\n", code);
      loaded->handle = 0;
      return;
    }
    if (Describe(path, *loaded)) network = std::move(loaded);
  }
};

}  // namespace

int init_yolo11_model(const std::string& path, const NetworkUse& use, NpuContext& context) {
  release_yolo11_model(context);
  const RknnApi* api = FindRuntime(context.npu);
  if (api == nullptr) return -1;
  NpuThread& thread = context.npu.thread;
  const OnNpu<Loading> loading(thread, std::make_shared<Loading>(Loading{path, *api, use}));
  if (!thread.Do([job = loading.Share()] { job->Load(); })) return -1;
  context.network.Reset(std::move(loading->network));
  return context.network ? 0 : -1;
}

int release_yolo11_model(NpuContext& context) {
  context.network.Reset();
  return 0;
}

}  // namespace varnel::service
