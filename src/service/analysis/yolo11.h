#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "service/analysis/detection.h"
#include "service/analysis/image_buffer.h"
#include "service/analysis/rknn_api.h"

namespace varnel::service {

class RknnLibrary;

/// Sees more of each picture than its detection: the boxes that the same run of the network gives
/// with one low threshold for all classes. The detection itself is not touched by it.
struct CandidateObserver {
  float threshold = 0;  ///< the score that a candidate must exceed
  std::function<void(const DetectionList&)> see;
};

/// One network on the NPU. Used by one thread at a time.
struct NpuContext {
  const RknnLibrary* library = nullptr;  ///< the board's own when null
  RknnHandle handle = 0;                 ///< of the runtime, 0 when nothing is loaded
  uint32_t input_count = 0;
  uint32_t output_count = 0;
  std::vector<TensorAttributes> inputs;
  std::vector<TensorAttributes> outputs;
  int32_t channel = 0;
  int32_t width = 0;
  int32_t height = 0;
  bool is_quant = false;
  const CandidateObserver* observer = nullptr;  ///< outlives its use here; stays when released

  NpuContext() = default;
  explicit NpuContext(const RknnLibrary& runtime) : library(&runtime) {}
  ~NpuContext();  ///< releases
  NpuContext(const NpuContext&) = delete;
  NpuContext& operator=(const NpuContext&) = delete;
};

/// Loads a network file into an NPU context, in the place of one that it holds. Messages go to
/// standard output. Refused are quantised networks, and those whose tensors make no sense.
/// @return 0 or -1; nothing stays loaded after a failure
[[nodiscard]] int init_yolo11_model(const std::string& path, NpuContext& context);

/// Frees everything of the context; harmless on an empty one.
/// @return 0
int release_yolo11_model(NpuContext& context);

/// Finds objects in a packed RGB picture of any size.
/// @param thresholds one per class: the score that a box must exceed; classes of the network beyond
/// them do not count
/// @param nms_threshold overlap (IoU) above which the weaker box of a class is dropped
/// @return 0 or negative; `found` is empty after a failure
[[nodiscard]] int inference_yolo11_model(NpuContext& context, const ImageBuffer& picture,
                                         DetectionList& found, std::span<const float> thresholds,
                                         float nms_threshold);

/// Runs a packed RGB picture through a classifying network.
/// @param values every value of output 0, as float
/// @return 0 or negative
[[nodiscard]] int inference_classifier(NpuContext& context, const ImageBuffer& picture,
                                       std::vector<float>& values);

}  // namespace varnel::service
