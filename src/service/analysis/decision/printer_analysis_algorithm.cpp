#include "service/analysis/decision/printer_analysis_algorithm.h"

#include <algorithm>
#include <utility>

#include "service/analysis/decision/analysis_result.h"
#include "service/analysis/decision/annotation.h"
#include "service/analysis/picture/analysis_log.h"
#include "service/analysis/picture/image_files.h"
#include "service/analysis/picture/image_quality.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = kAnalysisTag;

bool HasPositiveLabel(const DetectionRun& run) {
  const auto& positive = run.model.Settings().positive_labels;
  const auto results = Results(run.list);
  return std::any_of(results.begin(), results.end(), [&](const Detection& result) {
    return result.flag == 0 && std::find(positive.begin(), positive.end(),
                                         run.model.LabelOf(result.cls_id)) != positive.end();
  });
}

PictureSaving SavingOf(const DetectionRun& run) {
  PictureSaving saving;
  saving.original = run.model.Settings().saves_originals;
  saving.positive = HasPositiveLabel(run);
  saving.limit = run.model.Settings().picture_limit;
  return saving;
}

}  // namespace

PrinterAnalysisAlgorithm::PrinterAnalysisAlgorithm(std::vector<std::string> labels)
    : labels_(std::move(labels)), history_(labels_.size()) {}

AnalysisStatus PrinterAnalysisAlgorithm::Detect(AnalysisWorkspace& workspace,
                                                const std::string& path,
                                                const DetectRequest& request, json& output) {
  Model* model = workspace.models.Find(labels_);
  if (model == nullptr) {
    VLOG_ERROR(kTag, "find model failed {}", JoinedLabels(labels_));
    return AnalysisStatus::kNotLoaded;
  }
  workspace.models.ReleaseOthers(*model);
  workspace.pictures.BeginPicture();
  DetectionRun run{workspace, request, *model, path};
  const AnalysisStatus status = RunModel(run, output);
  ReleaseAfter(run);
  return status;
}

AnalysisStatus PrinterAnalysisAlgorithm::RunModel(DetectionRun& run, json& output) {
  AnalysisWorkspace& workspace = run.workspace;
  if (!workspace.models.EnsureLoaded(run.model)) {
    VLOG_ERROR(kTag, "DetectPicture EnsureLoad fail {}", run.model.Name());
    return AnalysisStatus::kNotLoaded;
  }
  const int read = read_image(run.path, run.picture);
  VLOG_INFO(kTag, "detect status: status: {} z: {} name: {} his size: {}",
            utils::LogText(run.request.status), run.request.z_position, Name(), history_.Size());
  if (run.request.First()) BeginPrint(workspace);
  AnalysisStatus status = AnalysisStatus::kUnreadable;
  if (read == 0) {
    status = Examine(run, output);
    SavePictures(run);
  } else {
    VLOG_ERROR(kTag, "read_image {} fail! ret={}", run.path, read);
    workspace.pictures.SaveUnreadable(run.path, SavingOf(run));
  }
  Finish(run);
  return status;
}

void PrinterAnalysisAlgorithm::BeginPrint(AnalysisWorkspace& workspace) {
  history_.Clear();
  workspace.reference.Forget();
}

AnalysisStatus PrinterAnalysisAlgorithm::Examine(DetectionRun& run, json& output) {
  const ImageBuffer& picture = run.picture.buffer;
  if (const auto quality = image_quality(picture); quality != PictureQuality::kUsable) {
    VLOG_ERROR(kTag, "image is abnormal! ret={} img={}", static_cast<int32_t>(quality), run.path);
    return AnalysisStatus::kAbnormalPicture;
  }
  const std::vector<float> thresholds = run.request.Thresholds(run.model.Settings());
  if (run.model.Detect(picture, thresholds, run.list) != 0) return AnalysisStatus::kInferenceFailed;
  if (run.list.count > 0) Verify(run);
  PostCheck(run);
  history_.Add(run.list);
  WriteStatistics(picture, output);
  return AnalysisStatus::kSuccess;
}

void PrinterAnalysisAlgorithm::WriteStatistics(const ImageBuffer& picture, json& output) const {
  for (size_t id = 0; id < labels_.size(); ++id) {
    const ClassTotals& totals = history_.Totals()[id];
    if (totals.count == 0) continue;
    output[labels_[id]] = ClassStatistics(totals, picture.width, picture.height);
    VLOG_DEBUG(kTag, "{} centred at {:.1f} {:.1f}", labels_[id], totals.centre_x, totals.centre_y);
  }
}

void PrinterAnalysisAlgorithm::SavePictures(DetectionRun& run) const {
  AnnotatePicture(run);
  const ImageBuffer* annotated = run.list.count > 0 ? &run.picture.buffer : nullptr;
  run.workspace.pictures.Save(run.path, annotated, SavingOf(run));
}

void PrinterAnalysisAlgorithm::Finish(DetectionRun& run) {
  if (run.clear_history) history_.Clear();
  if (run.verifier != nullptr) run.workspace.models.ReleaseAfterUse(*run.verifier);
  run.workspace.latest = {Name(), run.request.status, run.model.Settings().labels, run.list};
  run.workspace.latest.known = run.known;
  run.workspace.latest.verified = run.verified;
}

void PrinterAnalysisAlgorithm::ReleaseAfter(DetectionRun& run) const {
  AnalysisWorkspace& workspace = run.workspace;
  const bool last = run.request.Last();
  if (last || (run.request.First() && ReleasesAfterFirst()))
    workspace.models.ReleaseAfterUse(run.model);
  if (last && workspace.models.Unloads()) workspace.reference.Reset(Name());
}

}  // namespace varnel::service
