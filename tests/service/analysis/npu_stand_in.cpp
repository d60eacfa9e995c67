// A runtime of the NPU that does what a test's script says and writes down what it is asked.
#include "service/analysis/npu_stand_in.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstring>
#include <utility>

#define VARNEL_EXPORTED extern "C" __attribute__((visibility("default")))

namespace {

using namespace varnel::service;

NpuScript& Script() {
  static NpuScript script;
  return script;
}

int Fault(const char* function) {
  const auto failure = Script().failures.find(function);
  if (failure == Script().failures.end()) return 0;
  NpuScript::Failure& next = failure->second;
  if (next.passing > 0) {
    --next.passing;
    return 0;
  }
  return next.failing-- > 0 ? next.code : 0;
}

ScriptedNetwork* Find(RknnHandle handle) {
  const auto found = Script().loaded.find(handle);
  if (found != Script().loaded.end()) return &found->second;
  ++Script().wrong_calls;
  return nullptr;
}

}  // namespace

VARNEL_EXPORTED NpuScript* npu_stand_in_script() {
  return &Script();
}

VARNEL_EXPORTED int rknn_init(RknnHandle* handle, void* model, uint32_t size, uint32_t flags,
                              void* extension) {
  NpuScript& script = Script();
  if (script.raise_priority) ::setpriority(PRIO_PROCESS, 0, -19);
  if (size != 0 || flags != 0 || extension != nullptr) return kRknnParameterInvalid;
  if (const int fault = Fault("rknn_init"); fault != 0) return fault;
  const std::filesystem::path path = static_cast<const char*>(model);
  const auto network = script.networks.find(path.filename());
  if (network == script.networks.end()) return kRknnModelInvalid;
  *handle = static_cast<RknnHandle>(++script.inits);
  script.loaded[*handle] = network->second;
  script.highest_loaded = std::max(script.highest_loaded, script.loaded.size());
  script.files[*handle] = path.filename();
  return kRknnSuccess;
}

VARNEL_EXPORTED int rknn_destroy(RknnHandle handle) {
  if (Find(handle) == nullptr) return kRknnContextInvalid;
  Script().loaded.erase(handle);
  Script().files.erase(handle);
  return Fault("rknn_destroy");
}

VARNEL_EXPORTED int rknn_query(RknnHandle handle, RknnQuery query, void* answer, uint32_t size) {
  const ScriptedNetwork* network = Find(handle);
  if (const int fault = Fault("rknn_query"); fault != 0) return fault;
  if (network == nullptr) return kRknnContextInvalid;
  if (query == RknnQuery::kVersions && size == sizeof(RuntimeVersions)) {
    *static_cast<RuntimeVersions*>(answer) = {{"2.3.2 (scripted)"}, {"0.9.6"}};
    return kRknnSuccess;
  }
  if (query == RknnQuery::kInOutNum && size == sizeof network->counts) {
    std::memcpy(answer, &network->counts, size);
    return kRknnSuccess;
  }
  const auto& tensors = query == RknnQuery::kInputAttr ? network->inputs : network->outputs;
  auto* attributes = static_cast<TensorAttributes*>(answer);
  if (size != sizeof *attributes || attributes->index >= tensors.size()) {
    return kRknnParameterInvalid;
  }
  *attributes = tensors[attributes->index];
  return kRknnSuccess;
}

VARNEL_EXPORTED int rknn_inputs_set(RknnHandle handle, uint32_t count, RknnInput* inputs) {
  if (const int fault = Fault("rknn_inputs_set"); fault != 0) return fault;
  if (Script().dead.contains(handle)) return kRknnContextInvalid;
  if (Find(handle) == nullptr || count != 1) return kRknnInputInvalid;
  Script().input = *inputs;
  const auto* bytes = static_cast<const uint8_t*>(inputs->buffer);
  Script().picture.assign(bytes, bytes + inputs->size);
  return kRknnSuccess;
}

VARNEL_EXPORTED int rknn_run(RknnHandle handle, void* extension) {
  if (const auto gate = std::exchange(Script().gate, nullptr)) {
    gate->reached.set_value();
    gate->open.get_future().wait();
  }
  if (const int fault = Fault("rknn_run"); fault != 0) {
    Script().dead.insert(handle);
    return fault;
  }
  if (Find(handle) == nullptr || extension != nullptr) return kRknnContextInvalid;
  ++Script().runs;
  return kRknnSuccess;
}

VARNEL_EXPORTED int rknn_outputs_get(RknnHandle handle, uint32_t count, RknnOutput* outputs,
                                     void* extension) {
  if (const int fault = Fault("rknn_outputs_get"); fault != 0) return fault;
  const ScriptedNetwork* network = Find(handle);
  if (network == nullptr || extension != nullptr) return kRknnContextInvalid;
  for (uint32_t i = 0; i < count; ++i) {
    if (outputs[i].index != i || outputs[i].want_float != 1 || outputs[i].is_preallocated != 0)
      return kRknnOutputInvalid;
    const std::vector<float>& values = network->values.at(i);
    outputs[i].size = static_cast<uint32_t>(values.size() * sizeof(float));
    outputs[i].buffer = values.empty() ? nullptr : new float[values.size()];
    std::copy(values.begin(), values.end(), static_cast<float*>(outputs[i].buffer));
    if (outputs[i].buffer != nullptr) Script().outputs.insert(outputs[i].buffer);
  }
  return kRknnSuccess;
}

VARNEL_EXPORTED int rknn_outputs_release(RknnHandle handle, uint32_t count, RknnOutput* outputs) {
  if (Find(handle) == nullptr) return kRknnContextInvalid;
  for (uint32_t i = 0; i < count; ++i) {
    if (outputs[i].buffer == nullptr) continue;
    if (Script().outputs.erase(outputs[i].buffer) == 0) ++Script().wrong_calls;
    delete[] static_cast<float*>(outputs[i].buffer);
  }
  return Fault("rknn_outputs_release");
}
