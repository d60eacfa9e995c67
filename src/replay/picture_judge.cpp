#include "replay/picture_judge.h"

#include "replay/sweep.h"
#include "service/analysis/rknn_library.h"
#include "utils/clock.h"

namespace varnel::replay {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

/// The product's networks and decisions. Only the pictures that are kept are others: the annotated
/// one of each input, to be taken away at once.
std::string Configuration() {
  json config = json::parse(service::kBuiltInModelConfig);
  for (json& model : config["models"]) {
    model["max_detect_pic_cnt"] = model.contains("cls_label_idx") ? 0 : 1;
    model["save_orignal_pic"] = 0;
    model["save_pic_of_positive_labels"] = json::array();
  }
  return config.dump();
}

std::unique_ptr<service::PrinterAnalysis> NewAnalysis(const fs::path& models,
                                                      const fs::path& results,
                                                      const service::RknnLibrary& library) {
  const std::string config = Configuration();
  service::AnalysisSetup setup;
  setup.models = models;
  setup.results = results;
  setup.library = &library;
  setup.config = config;
  return std::make_unique<service::PrinterAnalysis>(setup);
}

Prediction PredictionOf(const service::Detection& result) {
  const service::DetectionBox& box = result.box;
  return {static_cast<size_t>(result.cls_id),
          result.prop,
          {static_cast<double>(box.left), static_cast<double>(box.top),
           static_cast<double>(box.right), static_cast<double>(box.bottom)}};
}

Find FindOf(const service::Detection& result) {
  constexpr uint32_t kRejected = service::kDetectionIgnored | service::kDetectionOutsideBed;
  return {PredictionOf(result), result.flag, (result.flag & kRejected) == 0};
}

double MillisecondsSince(utils::Clock::TimePoint start) {
  const auto time = utils::SystemClock::Instance().Now() - start;
  return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

PictureJudge::PictureJudge(const Options& options, const fs::path& annotated,
                           const service::RknnLibrary& library)
    : options_(options),
      annotated_(annotated),
      results_(annotated),
      library_(library),
      observer_{Sweep::Threshold(0),
                [this](const service::DetectionList& found) { candidates_ = found; }},
      models_(options.models.empty() ? service::AnalysisSetup().models : options.models),
      analysis_(NewAnalysis(models_, results_.Path(), library)) {
  if (options_.labels.empty()) return;
  service::Model* model = analysis_->Models().Find(json(options_.algorithm->labels));
  if (model != nullptr) model->Observe(&observer_);
}

std::string PictureJudge::Problem() const {
  if (library_.Api() == nullptr)
    return "no NPU runtime: " + library_.Error() + "; --runtime names one";
  if (!analysis_->Ready()) return "the print analysis is not ready";
  std::string problem = ProblemWith(options_.algorithm->labels);
  if (problem.empty() && !options_.algorithm->verifier.empty())
    problem = ProblemWith(json::array({options_.algorithm->verifier}));
  return problem;
}

/// The daemon goes on without a network that verifies; a judgement without it would be worth
/// nothing.
std::string PictureJudge::ProblemWith(const json& labels) const {
  service::Model* model = analysis_->Models().Find(labels);
  if (model == nullptr) return "no network has these labels: " + labels.dump();
  const fs::path file = models_ / model->Config().value("fname", std::string());
  std::error_code error;
  if (!fs::exists(file, error))
    return "no network " + file.string() + "; --models names a directory";
  const bool loaded = analysis_->Models().EnsureLoaded(*model);
  model->Release();
  return loaded ? std::string() : "the NPU does not take " + file.string() + ", see messages.log";
}

std::map<std::string, float> PictureJudge::Thresholds() const {
  const auto& labels = options_.algorithm->labels;
  const service::Model* model = analysis_->Models().Find(json(labels));
  const std::vector<float> values = model->Thresholds(service::DetectRequest(Request("")));
  std::map<std::string, float> thresholds;
  for (size_t i = 0; i < values.size() && i < labels.size(); ++i) thresholds[labels[i]] = values[i];
  return thresholds;
}

json PictureJudge::Request(const std::string& status) const {
  json request = {{"labels", options_.algorithm->labels}, {"detect_status", status}};
  for (const auto& [label, threshold] : options_.thresholds)
    request[label] = {{"threshold", threshold}};
  return request;
}

Judgement PictureJudge::Judge(const std::string& picture, const std::string& status) {
  Judgement judgement;
  judgement.picture = picture;
  judgement.status = status;
  candidates_ = {};
  const auto start = utils::SystemClock::Instance().Now();
  const service::AnalysisResult result =
      analysis_->DetectPicture((options_.folder / picture).string(), Request(status));
  judgement.milliseconds = MillisecondsSince(start);
  judgement.code = result.code;
  judgement.message = result.Message();
  if (result.code == service::kAnalysisSuccess) Fill(result, judgement);
  judgement.annotated = KeepAnnotated(picture);
  return judgement;
}

void PictureJudge::Fill(const service::AnalysisResult& result, Judgement& judgement) {
  judgement.statistics = result.data;
  judgement.statistics.erase("err_code");
  for (const service::Detection& found : Results(analysis_->Latest().found))
    judgement.finds.push_back(FindOf(found));
  for (const service::Detection& found : Results(candidates_))
    judgement.candidates.push_back(PredictionOf(found));
  judgement.candidates_full = candidates_.count == service::kMaxDetections;
}

/// An old picture of this name goes in any case: it would show another judgement.
bool PictureJudge::KeepAnnotated(const std::string& picture) const {
  const fs::path target = annotated_ / picture;
  std::error_code error;
  fs::remove(target, error);
  const fs::directory_iterator made(results_.Path() / "det", error);
  if (error || made == fs::directory_iterator()) return false;
  fs::rename(made->path(), target, error);
  return !error;
}

}  // namespace varnel::replay
