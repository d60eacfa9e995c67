#include "service/analysis/network/yolo11.h"

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "service/analysis/network/post_process.h"
#include "service/analysis/picture/image_print.h"
#include "service/analysis/picture/letterbox.h"
#include "utils/log.h"
#include "utils/owned.h"

namespace varnel::service {

namespace {

constexpr const char* kTag = "yolo11";
constexpr uint8_t kBackground = 114;

/// A failure of the runtime is negative, whatever number it gave.
int Failure(int code) {
  return code < 0 ? code : -1;
}

class NetworkRun;

/// Looks at the outputs of a run. It owns what it needs: it may be called when nobody waits.
using UseOutputs = std::function<int(const NetworkRun&)>;

/// One picture in a network. It owns all that the runtime works with, however long that takes.
class NetworkRun {
 public:
  NetworkRun(std::shared_ptr<const LoadedNetwork> network, UseOutputs use)
      : network_(std::move(network)),
        use_(std::move(use)),
        size_(static_cast<uint32_t>(network_->width * network_->height * network_->channel)),
        pixels_(new (std::nothrow) uint8_t[size_]),
        outputs_(network_->output_count) {}
  NetworkRun(const NetworkRun&) = delete;
  NetworkRun& operator=(const NetworkRun&) = delete;
  ~NetworkRun() = default;

  /// Turns the picture into what the network takes. Before Perform(), from any thread.
  [[nodiscard]] int Fill(const ImageBuffer& picture) {
    if (!pixels_) {
      PrintMessage("malloc buffer size:%d fail!\n", static_cast<int>(size_));
      return -1;
    }
    ImageBuffer target;
    target.width = network_->width;
    target.height = network_->height;
    target.virt_addr = pixels_.get();
    target.size = size_;
    const int code = convert_image_with_letterbox(picture, target, letterbox_, kBackground, false);
    if (code != 0) PrintMessage("convert_image_with_letterbox fail! ret=%d\n", code);
    return code;
  }

  /// From the input to the outputs' use. On the NPU's thread.
  void Perform() {
    if (const int code = Produce(); code != 0) {
      code_ = code;
      return;
    }
    const utils::Owned<NetworkRun, GiveBack> taken(this);
    code_ = use_(*this);
  }

  /// After Perform().
  [[nodiscard]] int Code() const { return code_; }
  // While the outputs are used.
  [[nodiscard]] const LoadedNetwork& Network() const { return *network_; }
  [[nodiscard]] const LetterBox& Placement() const { return letterbox_; }
  /// The values of an output; none when the runtime says that it gave less than promised.
  [[nodiscard]] std::span<const float> Values(size_t index) const {
    const TensorAttributes& tensor = network_->outputs[index];
    const RknnOutput& output = outputs_[index];
    const size_t needed = Elements(tensor);
    size_t there = tensor.element_count;
    if (output.size > 0) there = std::min(there, output.size / sizeof(float));
    if (output.buffer == nullptr || there < needed) return {};
    return {static_cast<const float*>(output.buffer), needed};
  }

 private:
  [[nodiscard]] const RknnApi& Api() const { return network_->api; }

  int Produce() {
    if (const int code = Check("rknn_input_set", SetInput()); code != 0) return code;
    if (const int code = Check("rknn_run", Api().run(network_->handle, nullptr)); code != 0)
      return code;
    return Check("rknn_outputs_get", GetOutputs());
  }

  static void GiveBack(NetworkRun* run) {
    run->Api().outputs_release(run->network_->handle, run->network_->output_count,
                               run->outputs_.data());
  }

  int SetInput() {
    RknnInput input;
    input.buffer = pixels_.get();
    input.size = size_;
    return Api().inputs_set(network_->handle, 1, &input);
  }

  int GetOutputs() {
    for (uint32_t i = 0; i < outputs_.size(); ++i) {
      outputs_[i].index = i;
      outputs_[i].want_float = network_->is_quant ? 0 : 1;
    }
    return Api().outputs_get(network_->handle, network_->output_count, outputs_.data(), nullptr);
  }

  static int Check(const char* function, int code) {
    if (code == kRknnSuccess) return 0;
    PrintMessage("%s fail! ret=%d\n", function, code);
    return Failure(code);
  }

  const std::shared_ptr<const LoadedNetwork> network_;
  const UseOutputs use_;
  const uint32_t size_;
  const std::unique_ptr<uint8_t[]> pixels_;
  LetterBox letterbox_;
  std::vector<RknnOutput> outputs_;
  int code_ = kRknnFail;
};

/// Runs the network over a picture and has its outputs used.
int RunNetwork(const NpuContext& context, const ImageBuffer& picture, UseOutputs use) {
  if (!context.network) return -1;
  const auto run = std::make_shared<NetworkRun>(context.network.Share(), std::move(use));
  if (const int code = run->Fill(picture); code != 0) return Failure(code);
  NpuThread& thread = context.npu.thread;
  if (!thread.Do([run] { run->Perform(); })) return kRknnTimeOut;
  // What comes after everybody has given up is no answer.
  return thread.Answers() ? run->Code() : kRknnTimeOut;
}

int MisfittingOutputs(const char* problem) {
  PrintMessage("outputs of the network do not fit: %s\n", problem);
  return -1;
}

OutputBranch MakeBranch(const NetworkRun& run, size_t first) {
  const TensorAttributes& boxes = run.Network().outputs[first];
  OutputBranch branch;
  branch.boxes = run.Values(first);
  branch.scores = run.Values(first + 1);
  branch.dfl_len = static_cast<int32_t>(boxes.dims[1] / 4);
  branch.grid_h = static_cast<int32_t>(boxes.dims[2]);
  branch.grid_w = static_cast<int32_t>(boxes.dims[3]);
  return branch;
}

int FindBoxes(const NetworkRun& run, const PostProcessing& processing, DetectionList& found) {
  const LoadedNetwork& network = run.Network();
  if (network.use.kind != NetworkKind::kDetecting) return MisfittingOutputs("their number");
  std::array<OutputBranch, LoadedNetwork::kBranches> branches;
  for (size_t i = 0; i < branches.size(); ++i)
    branches[i] = MakeBranch(run, i * network.OutputsPerBranch());
  const int code = post_process(branches, processing, found);
  return code == 0 ? 0 : MisfittingOutputs("their sizes");
}

void CheckBox(const Rect& box) {
  if (box.left < 0) VLOG_ERROR(kTag, "box left {} error", box.left);
  if (box.top < 0) VLOG_ERROR(kTag, "box top {} error", box.top);
  if (box.right < 0) VLOG_ERROR(kTag, "box right {} error", box.right);
  if (box.bottom < 0) VLOG_ERROR(kTag, "box bottom {} error", box.bottom);
  if (box.left > box.right) VLOG_ERROR(kTag, "box left/right {} {} error", box.left, box.right);
  if (box.top > box.bottom) VLOG_ERROR(kTag, "box top/bottom {} {} error", box.top, box.bottom);
}

/// The boxes in one picture.
struct BoxSearch {
  std::vector<float> thresholds;
  float nms_threshold;
  std::optional<float> candidate_threshold;
  DetectionList found{};
  std::optional<DetectionList> candidates{};

  int Look(const NetworkRun& run) {
    PostProcessing processing{run.Network().width, run.Network().height, run.Placement(),
                              thresholds, nms_threshold};
    const int code = FindBoxes(run, processing, found);
    if (code != 0 || !candidate_threshold) return code;
    const std::vector<float> low(thresholds.size(), *candidate_threshold);
    processing.thresholds = low;
    if (FindBoxes(run, processing, candidates.emplace()) != 0) candidates.reset();
    return 0;
  }
};

}  // namespace

int inference_yolo11_model(NpuContext& context, const ImageBuffer& picture, DetectionList& found,
                           std::span<const float> thresholds, float nms_threshold) {
  found = {};
  const auto search = std::make_shared<BoxSearch>(
      BoxSearch{{thresholds.begin(), thresholds.end()}, nms_threshold, std::nullopt});
  if (context.observer != nullptr) search->candidate_threshold = context.observer->threshold;
  const int code =
      RunNetwork(context, picture, [search](const NetworkRun& run) { return search->Look(run); });
  if (code != 0) return code;
  found = search->found;
  for (int32_t i = 0; i < found.count; ++i) CheckBox(found.results[static_cast<size_t>(i)].box);
  if (search->candidates) context.observer->see(*search->candidates);
  return 0;
}

int inference_classifier(NpuContext& context, const ImageBuffer& picture,
                         std::vector<float>& values) {
  values.clear();
  const auto answer = std::make_shared<std::vector<float>>();
  const int code = RunNetwork(context, picture, [answer](const NetworkRun& run) {
    const auto first = run.Values(0);
    if (first.empty()) return MisfittingOutputs("their sizes");
    answer->assign(first.begin(), first.end());
    return 0;
  });
  if (code == 0) values = *answer;
  return code;
}

}  // namespace varnel::service
