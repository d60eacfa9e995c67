#include "service/analysis/decision/noodle_verification.h"

#include <algorithm>
#include <optional>

#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/image_convert.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = kAnalysisTag;

Model* FindVerifier(const DetectionRun& run, const std::string& label) {
  Model* model = run.workspace.models.Find({label});
  if (model == nullptr) {
    VLOG_ERROR(kTag, "cannot find verify_model for {}", label);
    return nullptr;
  }
  if (!run.workspace.models.EnsureLoaded(*model)) {
    VLOG_ERROR(kTag, "cannot load verify_model for {}", label);
    return nullptr;
  }
  const auto& labels = model->Settings().labels;
  if (std::find(labels.begin(), labels.end(), label) == labels.end()) {
    VLOG_ERROR(kTag, "verification cannot find label {} in model {}", label, model->Name());
    return nullptr;
  }
  return model;
}

/// The part of the box that lies in the picture; a box at the edge may reach a pixel beyond it.
Rect Inside(const Rect& box, const ImageBuffer& picture) {
  return {std::clamp(box.left, 0, picture.width), std::clamp(box.top, 0, picture.height),
          std::clamp(box.right, 0, picture.width), std::clamp(box.bottom, 0, picture.height)};
}

/// Nothing when the network did not answer.
std::optional<float> ValueOf(Model& verifier, const ImageBuffer& crop) {
  std::vector<float> values;
  if (const int code = verifier.Classify(crop, values); code != 0) {
    VLOG_ERROR(kTag, "verify model {} failed ret={}", verifier.Name(), code);
    return std::nullopt;
  }
  const int32_t index = verifier.Settings().class_index;
  if (index < 0 || static_cast<size_t>(index) >= values.size()) {
    VLOG_ERROR(kTag, "verify model {} has {} values, none with index {}", verifier.Name(),
               values.size(), index);
    return std::nullopt;
  }
  return values[static_cast<size_t>(index)];
}

void VerifyResult(DetectionRun& run, Model& verifier, size_t index) {
  Detection& result = run.list.results[index];
  Image crop;
  const Rect box = Inside(result.box, run.picture.buffer);
  if (crop_image(run.picture.buffer, box, crop) != 0) {
    VLOG_ERROR(kTag, "crop image failed {} {} {} {}", result.box.left, result.box.top,
               result.box.right, result.box.bottom);
    return;
  }
  // A run that failed for the result before has cost the network its context.
  const bool ready = run.workspace.npu.Answers() && run.workspace.models.EnsureLoaded(verifier);
  const std::optional<float> value = ready ? ValueOf(verifier, crop.buffer) : std::nullopt;
  run.verified[index] = value;
  // A value that is no number passes no threshold.
  const bool rejected = value && !(*value >= verifier.Settings().class_threshold);
  if (rejected) {
    VLOG_INFO(kTag, "verify model check disable this item cls_label_idx:{}",
              verifier.Settings().class_index);
    result.flag |= kDetectionIgnored;
  }
  const char* first = run.request.First() ? ".first" : "";
  const char* suffix = rejected ? ".val_fail" : first;
  run.workspace.pictures.SaveCrop(crop.buffer, suffix, verifier.Settings().picture_limit);
}

}  // namespace

void VerifyResults(DetectionRun& run, const std::string& label) {
  Model* verifier = FindVerifier(run, label);
  if (verifier == nullptr) return;
  run.verifier = verifier;
  for (size_t i = 0; i < Results(run.list).size(); ++i) VerifyResult(run, *verifier, i);
}

}  // namespace varnel::service
