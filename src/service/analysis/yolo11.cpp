#include "service/analysis/yolo11.h"

#include <array>
#include <functional>
#include <memory>
#include <new>

#include "service/analysis/image_print.h"
#include "service/analysis/letterbox.h"
#include "service/analysis/post_process.h"
#include "service/analysis/rknn_library.h"
#include "utils/log.h"

namespace varnel::service {

namespace {

constexpr const char* kTag = "yolo11";
constexpr uint8_t kBackground = 114;
constexpr size_t kBranches = 3;

/// A failure of the runtime is negative, whatever number it gave.
int Failure(int code) {
  return code < 0 ? code : -1;
}

size_t Elements(const TensorAttributes& tensor) {
  size_t elements = 1;
  for (uint32_t i = 0; i < tensor.dim_count; ++i) elements *= tensor.dims[i];
  return elements;
}

/// The outputs of one run, given back to the runtime when this ends.
class Outputs {
 public:
  explicit Outputs(const NpuContext& context) : context_(context), outputs_(context.output_count) {
    for (uint32_t i = 0; i < outputs_.size(); ++i) {
      outputs_[i].index = i;
      outputs_[i].want_float = context.is_quant ? 0 : 1;
    }
  }
  Outputs(const Outputs&) = delete;
  Outputs& operator=(const Outputs&) = delete;
  ~Outputs() {
    if (taken_) Api().outputs_release(context_.handle, context_.output_count, outputs_.data());
  }

  [[nodiscard]] int Get() {
    const int code =
        Api().outputs_get(context_.handle, context_.output_count, outputs_.data(), nullptr);
    taken_ = code == kRknnSuccess;
    return code;
  }

  /// The values of an output; none when the runtime gave less than its attributes promise.
  [[nodiscard]] std::span<const float> Values(size_t index) const {
    const size_t elements = Elements(context_.outputs[index]);
    const RknnOutput& output = outputs_[index];
    if (output.buffer == nullptr || output.size / sizeof(float) < elements) return {};
    return {static_cast<const float*>(output.buffer), elements};
  }

 private:
  [[nodiscard]] const RknnApi& Api() const { return *context_.library->Api(); }

  const NpuContext& context_;
  std::vector<RknnOutput> outputs_;
  bool taken_ = false;
};

/// The bytes that a picture becomes for the network.
class NetworkInput {
 public:
  explicit NetworkInput(const NpuContext& context)
      : width_(context.width),
        height_(context.height),
        size_(static_cast<uint32_t>(context.width * context.height * context.channel)),
        pixels_(new (std::nothrow) uint8_t[size_]) {}

  [[nodiscard]] int Fill(const ImageBuffer& picture, LetterBox& letterbox) {
    if (!pixels_) {
      PrintMessage("malloc buffer size:%d fail!\n", static_cast<int>(size_));
      return -1;
    }
    ImageBuffer target;
    target.width = width_;
    target.height = height_;
    target.virt_addr = pixels_.get();
    target.size = size_;
    const int code = convert_image_with_letterbox(picture, target, letterbox, kBackground, false);
    if (code != 0) PrintMessage("convert_image_with_letterbox fail! ret=%d\n", code);
    return code;
  }

  [[nodiscard]] int Set(const RknnApi& api, RknnHandle handle) {
    RknnInput input;
    input.buffer = pixels_.get();
    input.size = size_;
    const int code = api.inputs_set(handle, 1, &input);
    if (code != kRknnSuccess) PrintMessage("rknn_input_set fail! ret=%d\n", code);
    return code;
  }

 private:
  const int32_t width_;
  const int32_t height_;
  const uint32_t size_;
  const std::unique_ptr<uint8_t[]> pixels_;
};

using UseOutputs = std::function<int(const Outputs&, const LetterBox&)>;

/// Runs the network over a picture and hands its outputs on.
int RunNetwork(const NpuContext& context, const ImageBuffer& picture, const UseOutputs& use) {
  if (context.handle == 0) return -1;
  const RknnApi& api = *context.library->Api();
  NetworkInput input(context);
  LetterBox letterbox;
  if (const int code = input.Fill(picture, letterbox); code != 0) return Failure(code);
  if (const int code = input.Set(api, context.handle); code != 0) return Failure(code);
  if (const int code = api.run(context.handle, nullptr); code != 0) {
    PrintMessage("rknn_run fail! ret=%d\n", code);
    return Failure(code);
  }
  Outputs outputs(context);
  if (const int code = outputs.Get(); code != 0) {
    PrintMessage("rknn_outputs_get fail! ret=%d\n", code);
    return Failure(code);
  }
  return use(outputs, letterbox);
}

int MisfittingOutputs(const char* problem) {
  PrintMessage("outputs of the network do not fit: %s\n", problem);
  return -1;
}

bool IsGrid(const TensorAttributes& tensor) {
  return tensor.dim_count == 4 && tensor.dims[0] == 1 && tensor.format != TensorFormat::kNhwc;
}

bool ShareGrid(const TensorAttributes& boxes, const TensorAttributes& scores) {
  return IsGrid(boxes) && IsGrid(scores) && boxes.dims[2] == scores.dims[2] &&
         boxes.dims[3] == scores.dims[3];
}

OutputBranch MakeBranch(const NpuContext& context, const Outputs& outputs, size_t first) {
  const TensorAttributes& boxes = context.outputs[first];
  OutputBranch branch;
  branch.boxes = outputs.Values(first);
  branch.scores = outputs.Values(first + 1);
  branch.dfl_len = static_cast<int32_t>(boxes.dims[1] / 4);
  branch.grid_h = static_cast<int32_t>(boxes.dims[2]);
  branch.grid_w = static_cast<int32_t>(boxes.dims[3]);
  return branch;
}

int FindBoxes(const NpuContext& context, const Outputs& outputs, const PostProcessing& processing,
              DetectionList& found) {
  const size_t per_branch = context.output_count / kBranches;
  if (per_branch < 2 || context.output_count % kBranches != 0) {
    return MisfittingOutputs("their number");
  }
  std::array<OutputBranch, kBranches> branches;
  for (size_t i = 0; i < kBranches; ++i) {
    const size_t first = i * per_branch;
    if (!ShareGrid(context.outputs[first], context.outputs[first + 1])) {
      return MisfittingOutputs("their shapes");
    }
    branches[i] = MakeBranch(context, outputs, first);
  }
  const int code = post_process(branches, processing, found);
  return code == 0 ? 0 : MisfittingOutputs("their sizes");
}

void CheckBox(const DetectionBox& box) {
  if (box.left < 0) VLOG_ERROR(kTag, "box left {} error", box.left);
  if (box.top < 0) VLOG_ERROR(kTag, "box top {} error", box.top);
  if (box.right < 0) VLOG_ERROR(kTag, "box right {} error", box.right);
  if (box.bottom < 0) VLOG_ERROR(kTag, "box bottom {} error", box.bottom);
  if (box.left > box.right) VLOG_ERROR(kTag, "box left/right {} {} error", box.left, box.right);
  if (box.top > box.bottom) VLOG_ERROR(kTag, "box top/bottom {} {} error", box.top, box.bottom);
}

void ShowCandidates(const NpuContext& context, const Outputs& outputs, PostProcessing processing) {
  const std::vector<float> low(processing.thresholds.size(), context.observer->threshold);
  processing.thresholds = low;
  DetectionList candidates;
  if (FindBoxes(context, outputs, processing, candidates) == 0) context.observer->see(candidates);
}

}  // namespace

int inference_yolo11_model(NpuContext& context, const ImageBuffer& picture, DetectionList& found,
                           std::span<const float> thresholds, float nms_threshold) {
  found = {};
  const auto use = [&](const Outputs& outputs, const LetterBox& letterbox) {
    const PostProcessing processing{context.width, context.height, letterbox, thresholds,
                                    nms_threshold};
    const int code = FindBoxes(context, outputs, processing, found);
    if (code == 0 && context.observer != nullptr) ShowCandidates(context, outputs, processing);
    return code;
  };
  const int code = RunNetwork(context, picture, use);
  for (int32_t i = 0; i < found.count; ++i) CheckBox(found.results[static_cast<size_t>(i)].box);
  return code;
}

int inference_classifier(NpuContext& context, const ImageBuffer& picture,
                         std::vector<float>& values) {
  values.clear();
  return RunNetwork(context, picture, [&](const Outputs& outputs, const LetterBox&) {
    const auto first = outputs.Values(0);
    if (first.empty()) return MisfittingOutputs("their sizes");
    values.assign(first.begin(), first.end());
    return 0;
  });
}

}  // namespace varnel::service
