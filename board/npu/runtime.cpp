// The virtual board's librknnrt.so: the functions of the NPU's runtime, with the processor behind
// them. Networks are ONNX files.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <opencv2/core/utility.hpp>
#include <thread>

#include "service/analysis/network/rknn_api.h"
#include "virtual_board/common/files.h"
#include "virtual_board/npu/network.h"
#include "virtual_board/npu/npu_files.h"

#define VARNEL_EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

using namespace varnel::service;
using varnel::board::Network;
using varnel::board::NpuCounters;
using varnel::board::NpuFiles;
using varnel::board::OnnxFile;

constexpr const char* kDirectory = "/run/varnel-board/npu";
constexpr uint32_t kKeepPriority = 0x2000;
constexpr int kRaisedPriority = -19;

/// All that is loaded in this process.
class Runtime {
 public:
  Runtime() { cv::setNumThreads(1); }

  /// One call from outside: faults on demand come first, nothing is thrown, and the counters are
  /// told afterwards.
  int Serve(const char* function, const std::function<int()>& call) noexcept try {
    const std::lock_guard lock(mutex_);
    if (const int fault = files_.TakeFault(function); fault != 0) return fault;
    const int code = call();
    files_.WriteState(counters_);
    return code;
  } catch (...) {
    return kRknnFail;
  }

  /// Before a run, as long as the fault asks for it.
  void Stall() const {
    while (files_.Stalls()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }

  /// After a run: some of the codes on demand are those of an NPU that was reset.
  int EndRun(RknnHandle handle, int code) noexcept {
    const std::lock_guard lock(mutex_);
    Network* network = Find(handle);
    if (network != nullptr && (code == kRknnTimeOut || code == kRknnDeviceUnavailable))
      network->Die();
    return code;
  }

  int Load(const std::string& bytes, RknnHandle& handle) {
    auto network = Network::Load(bytes);
    if (!network) return kRknnModelInvalid;
    handle = ++last_handle_;
    networks_[handle] = std::move(network);
    ++counters_.inits;
    counters_.contexts = static_cast<int>(networks_.size());
    counters_.highest_contexts = std::max(counters_.highest_contexts, counters_.contexts);
    return kRknnSuccess;
  }

  int Unload(RknnHandle handle) {
    if (networks_.erase(handle) == 0) return kRknnContextInvalid;
    counters_.contexts = static_cast<int>(networks_.size());
    return kRknnSuccess;
  }

  /// Null for a handle that is none.
  Network* Find(RknnHandle handle) {
    const auto found = networks_.find(handle);
    return found == networks_.end() ? nullptr : found->second.get();
  }

  int Run(Network& network) {
    network.Run();
    ++counters_.runs;
    return kRknnSuccess;
  }

  void HandOut(std::vector<float> values, RknnOutput& output) {
    output.size = static_cast<uint32_t>(values.size() * sizeof(float));
    output.buffer = values.data();
    outputs_[output.buffer] = std::move(values);
    counters_.outputs = static_cast<int>(outputs_.size());
  }

  void TakeBack(RknnOutput& output) {
    outputs_.erase(output.buffer);
    output.buffer = nullptr;
    counters_.outputs = static_cast<int>(outputs_.size());
  }

 private:
  const NpuFiles files_{kDirectory};
  std::mutex mutex_;
  RknnHandle last_handle_ = 0;
  std::map<RknnHandle, std::unique_ptr<Network>> networks_;
  std::map<void*, std::vector<float>> outputs_;
  NpuCounters counters_;
};

Runtime& TheRuntime() {
  static Runtime runtime;
  return runtime;
}

int ServeNetwork(const char* function, RknnHandle handle,
                 const std::function<int(Network&)>& call) {
  return TheRuntime().Serve(function, [&] {
    Network* network = TheRuntime().Find(handle);
    const bool serves = network != nullptr && !network->IsDead();
    return serves ? call(*network) : static_cast<int>(kRknnContextInvalid);
  });
}

template <class Value>
int Answer(const Value& value, void* answer, uint32_t size) {
  if (answer == nullptr || size != sizeof value) return kRknnParameterInvalid;
  std::memcpy(answer, &value, sizeof value);
  return kRknnSuccess;
}

TensorAttributes Describe(const OnnxFile::Tensor& tensor, uint32_t index) {
  TensorAttributes attributes;
  attributes.index = index;
  attributes.dim_count = static_cast<uint32_t>(tensor.dims.size());
  attributes.element_count = 1;
  for (size_t i = 0; i < tensor.dims.size() && i < kMaxTensorDims; ++i) {
    attributes.dims[i] = tensor.dims[i];
    attributes.element_count *= tensor.dims[i];
  }
  tensor.name.copy(attributes.name.data(), attributes.name.size() - 1);
  attributes.type = TensorType::kFloat16;
  attributes.size = attributes.element_count * 2;
  return attributes;
}

TensorAttributes DescribeInput(const OnnxFile& file, uint32_t index) {
  TensorAttributes attributes = Describe(file.inputs[index], index);
  attributes.format = TensorFormat::kNhwc;
  std::rotate(attributes.dims.begin() + 1, attributes.dims.begin() + 2,
              attributes.dims.begin() + 4);
  return attributes;
}

TensorAttributes DescribeOutput(const OnnxFile& file, uint32_t index) {
  TensorAttributes attributes = Describe(file.outputs[index], index);
  if (file.quantised) {
    attributes.type = TensorType::kInt8;
    attributes.quantisation = TensorQuantisation::kAffineAsymmetric;
    attributes.size = attributes.element_count;
    attributes.scale = 1.0F / 128;
  }
  return attributes;
}

int Query(const Network& network, RknnQuery query, void* answer, uint32_t size) {
  const OnnxFile& file = network.File();
  if (query == RknnQuery::kInOutNum) {
    return Answer(TensorCounts{static_cast<uint32_t>(file.inputs.size()),
                               static_cast<uint32_t>(file.outputs.size())},
                  answer, size);
  }
  if (query == RknnQuery::kVersions)
    return Answer(RuntimeVersions{{"virtual"}, {"virtual"}}, answer, size);
  const bool input = query == RknnQuery::kInputAttr;
  if ((!input && query != RknnQuery::kOutputAttr) || size != sizeof(TensorAttributes)) {
    return kRknnParameterInvalid;
  }
  const uint32_t index = static_cast<const TensorAttributes*>(answer)->index;
  if (index >= (input ? file.inputs : file.outputs).size()) return kRknnParameterInvalid;
  return Answer(input ? DescribeInput(file, index) : DescribeOutput(file, index), answer, size);
}

int SetInput(Network& network, uint32_t count, const RknnInput* inputs) {
  const bool served = count == 1 && inputs != nullptr && inputs->buffer != nullptr &&
                      inputs->index == 0 && inputs->pass_through == 0 &&
                      inputs->type == TensorType::kUint8 && inputs->format == TensorFormat::kNhwc &&
                      inputs->size == network.InputSize();
  if (!served) return kRknnInputInvalid;
  network.SetInput(static_cast<const uint8_t*>(inputs->buffer));
  return kRknnSuccess;
}

int GetOutputs(const Network& network, uint32_t count, RknnOutput* outputs) {
  if (count != network.File().outputs.size() || outputs == nullptr || !network.HasRun()) {
    return kRknnOutputInvalid;
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (outputs[i].index >= count || outputs[i].is_preallocated != 0 || outputs[i].want_float == 0)
      return kRknnOutputInvalid;
  }
  for (uint32_t i = 0; i < count; ++i) {
    TheRuntime().HandOut(network.Output(outputs[i].index), outputs[i]);
  }
  return kRknnSuccess;
}

}  // namespace

VARNEL_EXPORTED int rknn_init(RknnHandle* handle, void* model, uint32_t size, uint32_t flags,
                              void* /*extension*/) {
  if (handle == nullptr || model == nullptr) return kRknnParameterInvalid;
  const auto* text = static_cast<const char*>(model);
  return TheRuntime().Serve("rknn_init", [&] {
    if ((flags & kKeepPriority) == 0) ::setpriority(PRIO_PROCESS, 0, kRaisedPriority);
    return TheRuntime().Load(size == 0 ? varnel::board::ReadFile(text) : std::string(text, size),
                             *handle);
  });
}

VARNEL_EXPORTED int rknn_destroy(RknnHandle handle) {
  return TheRuntime().Serve("rknn_destroy", [&] { return TheRuntime().Unload(handle); });
}

VARNEL_EXPORTED int rknn_query(RknnHandle handle, RknnQuery query, void* answer, uint32_t size) {
  return ServeNetwork("rknn_query", handle,
                      [&](const Network& network) { return Query(network, query, answer, size); });
}

VARNEL_EXPORTED int rknn_inputs_set(RknnHandle handle, uint32_t count, RknnInput* inputs) {
  return ServeNetwork("rknn_inputs_set", handle,
                      [&](Network& network) { return SetInput(network, count, inputs); });
}

VARNEL_EXPORTED int rknn_run(RknnHandle handle, void* /*extension*/) {
  TheRuntime().Stall();
  return TheRuntime().EndRun(handle, ServeNetwork("rknn_run", handle, [&](Network& network) {
                               return TheRuntime().Run(network);
                             }));
}

VARNEL_EXPORTED int rknn_outputs_get(RknnHandle handle, uint32_t count, RknnOutput* outputs,
                                     void* /*extension*/) {
  return ServeNetwork("rknn_outputs_get", handle,
                      [&](const Network& network) { return GetOutputs(network, count, outputs); });
}

VARNEL_EXPORTED int rknn_outputs_release(RknnHandle handle, uint32_t count, RknnOutput* outputs) {
  return ServeNetwork("rknn_outputs_release", handle, [&](const Network&) {
    for (uint32_t i = 0; i < count; ++i) TheRuntime().TakeBack(outputs[i]);
    return static_cast<int>(kRknnSuccess);
  });
}
