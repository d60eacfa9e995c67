#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "service/analysis/network/detection.h"
#include "service/analysis/network/loaded_network.h"
#include "service/analysis/network/npu_thread.h"
#include "service/analysis/picture/image_buffer.h"

namespace varnel::service {

class RknnLibrary;

/// Sees more of each picture than its detection: the boxes that the same run of the network gives
/// with one low threshold for all classes. The detection itself is not touched by it.
struct CandidateObserver {
  float threshold = 0;  ///< the score that a candidate must exceed
  std::function<void(const DetectionList&)> see;
};

/// The NPU as networks see it.
struct Npu {
  NpuThread& thread;                     ///< outlives them
  const RknnLibrary* library = nullptr;  ///< the board's own when null
};

/// Room for one network on the NPU. Used by one thread at a time.
struct NpuContext {
  explicit NpuContext(const Npu& its_npu) : npu(its_npu) {}

  const Npu npu;
  OnNpu<LoadedNetwork> network{npu.thread, nullptr};  ///< null when nothing is loaded
  const CandidateObserver* observer = nullptr;  ///< outlives its use here; stays when released
};

/// Loads a network file into an NPU context, in the place of one that it holds. The runtime's
/// failures go to standard output, other reasons to the log: refused are quantised networks, and
/// those whose tensors do not fit the use.
/// @return 0 or -1; nothing stays loaded after a failure
[[nodiscard]] int init_yolo11_model(const std::string& path, const NetworkUse& use,
                                    NpuContext& context);

/// Frees everything of the context; harmless on an empty one.
/// @return 0
int release_yolo11_model(NpuContext& context);

/// Finds objects in a packed RGB picture of any size.
/// @param thresholds one per class: the score that a box must exceed
/// @param nms_threshold overlap (IoU) above which the weaker box of a class is dropped
/// @return 0 or negative, kRknnTimeOut when the NPU does not answer; `found` is empty after a
/// failure
[[nodiscard]] int inference_yolo11_model(NpuContext& context, const ImageBuffer& picture,
                                         DetectionList& found, std::span<const float> thresholds,
                                         float nms_threshold);

/// Runs a packed RGB picture through a classifying network.
/// @param values every value of output 0, as float
/// @return 0 or negative
[[nodiscard]] int inference_classifier(NpuContext& context, const ImageBuffer& picture,
                                       std::vector<float>& values);

}  // namespace varnel::service
