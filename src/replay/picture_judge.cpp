#include "replay/picture_judge.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "replay/sweep.h"
#include "service/analysis/network/rknn_library.h"
#include "utils/clock.h"

namespace varnel::replay {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

/// The product's networks and decisions. The pictures that are kept are others: the annotated
/// one of each input, to be taken away at once.
std::string Configuration(const Options& options) {
  json config = json::parse(service::kBuiltInModelConfig);
  // Each print would load the network again, and here each picture is one.
  if (options.independent) config["enable_model_unload"] = false;
  for (json& model : config["models"]) {
    model["max_detect_pic_cnt"] = model.contains("cls_label_idx") ? 0 : 1;
    model["save_orignal_pic"] = 0;
    model["save_pic_of_positive_labels"] = json::array();
  }
  return config.dump();
}

std::unique_ptr<service::PrinterAnalysis> NewAnalysis(const Options& options,
                                                      const fs::path& models,
                                                      const fs::path& results,
                                                      const service::RknnLibrary& library) {
  const std::string config = Configuration(options);
  service::AnalysisSetup setup;
  setup.models = models;
  setup.results = results;
  setup.library = &library;
  setup.config = config;
  return std::make_unique<service::PrinterAnalysis>(setup);
}

Prediction PredictionOf(const service::Detection& result) {
  const service::Rect& box = result.box;
  return {static_cast<size_t>(result.cls_id),
          result.prop,
          {static_cast<double>(box.left), static_cast<double>(box.top),
           static_cast<double>(box.right), static_cast<double>(box.bottom)}};
}

/// The verifying network and the sizes have a flag in common; no algorithm uses both.
Reason ReasonOf(const service::Detection& result, bool known, bool verified) {
  if (known) return Reason::kThereBefore;
  if ((result.flag & service::kDetectionIgnored) != 0)
    return verified ? Reason::kRejected : Reason::kTooSmall;
  if ((result.flag & service::kDetectionOutsideBed) != 0) return Reason::kBehindBed;
  return result.flag == 0 ? Reason::kNone : Reason::kOnlyShown;
}

std::vector<Find> FindsOf(const service::LatestDetection& latest) {
  std::vector<Find> finds;
  for (size_t i = 0; i < Results(latest.found).size(); ++i) {
    const service::Detection& result = latest.found.results[i];
    const std::optional<float>& verified = latest.verified[i];
    finds.push_back({PredictionOf(result), result.flag,
                     ReasonOf(result, latest.known[i], verified.has_value()), verified});
  }
  return finds;
}

double MillisecondsSince(utils::Clock::TimePoint start) {
  const auto time = utils::SystemClock::Instance().Now() - start;
  return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

const char* ReasonText(Reason reason) {
  static constexpr std::array<const char*, 6> kTexts{
      nullptr,     "only shown",     "rejected by the verifying network",
      "too small", "behind the bed", "there before the print"};
  return kTexts.at(static_cast<size_t>(reason));
}

PictureJudge::PictureJudge(const Options& options, const fs::path& annotated,
                           const service::RknnLibrary& library)
    : options_(options),
      annotated_(annotated),
      results_(annotated),
      library_(library),
      observer_{Sweep::Threshold(0),
                [this](const service::DetectionList& found) { candidates_ = found; }},
      models_(options.models.empty() ? service::AnalysisSetup().models : options.models),
      analysis_(NewAnalysis(options, models_, results_.Path(), library)) {
  if (options_.labels.empty()) return;
  service::Model* model = analysis_->Models().Find(options_.algorithm->labels);
  if (model != nullptr) model->Observe(&observer_);
}

std::string PictureJudge::Problem() const {
  if (library_.Api() == nullptr)
    return "no NPU runtime: " + library_.Error() + "; --runtime names one";
  if (!analysis_->Ready()) return "the print analysis is not ready";
  std::string problem = ProblemWith(options_.algorithm->labels);
  if (problem.empty() && !options_.algorithm->verifier.empty())
    problem = ProblemWith({options_.algorithm->verifier});
  return problem;
}

/// The daemon goes on without a network that verifies; a judgement without it would be worth
/// nothing.
std::string PictureJudge::ProblemWith(const std::vector<std::string>& labels) const {
  service::Model* model = analysis_->Models().Find(labels);
  if (model == nullptr) return "no network has these labels: " + service::JoinedLabels(labels);
  const fs::path file = models_ / model->Settings().file_name;
  std::error_code error;
  if (!fs::exists(file, error))
    return "no network " + file.string() + "; --models names a directory";
  const bool loaded = analysis_->Models().EnsureLoaded(*model);
  model->Release();
  return loaded ? std::string() : "the NPU does not take " + file.string() + ", see messages.log";
}

std::map<std::string, float> PictureJudge::Thresholds() const {
  const auto& labels = options_.algorithm->labels;
  const service::Model* model = analysis_->Models().Find(labels);
  const std::vector<float> values =
      service::DetectRequest(Request("")).Thresholds(model->Settings());
  std::map<std::string, float> thresholds;
  for (size_t i = 0; i < values.size() && i < labels.size(); ++i) thresholds[labels[i]] = values[i];
  return thresholds;
}

std::map<std::string, float> PictureJudge::VerifyThresholds() const {
  std::map<std::string, float> thresholds;
  if (options_.algorithm->verifier.empty()) return thresholds;
  const service::Model* model = analysis_->Models().Find({options_.algorithm->verifier});
  for (const std::string& label : options_.algorithm->labels)
    thresholds[label] = model->Settings().class_threshold;
  return thresholds;
}

std::vector<std::string> PictureJudge::Networks() const {
  std::vector<std::vector<std::string>> wanted = {options_.algorithm->labels};
  if (!options_.algorithm->verifier.empty()) wanted.push_back({options_.algorithm->verifier});
  std::vector<std::string> files;
  files.reserve(wanted.size());
  for (const auto& labels : wanted)
    files.push_back(analysis_->Models().Find(labels)->Settings().file_name);
  return files;
}

json PictureJudge::Request(const std::string& status) const {
  json request = {{"labels", options_.algorithm->labels}, {"detect_status", status}};
  for (const auto& [label, threshold] : options_.thresholds)
    request[label] = {{"threshold", threshold}};
  return request;
}

Judgement PictureJudge::Judge(const Turn& turn) {
  Judgement judgement;
  judgement.picture = turn.picture;
  judgement.status = turn.status;
  candidates_ = {};
  const auto start = utils::SystemClock::Instance().Now();
  const service::AnalysisResult result =
      analysis_->DetectPicture(PathOf(turn.picture).string(), Request(turn.status));
  judgement.milliseconds = MillisecondsSince(start);
  judgement.code = result.Code();
  judgement.message = result.Message();
  if (result.status == service::AnalysisStatus::kSuccess) Fill(result, judgement);
  judgement.annotated = KeepAnnotated(turn.picture);
  return judgement;
}

/// The analysis knows endings in small and in capital letters. Of any other it sees a link.
fs::path PictureJudge::PathOf(const std::string& picture) const {
  fs::path path = fs::absolute(options_.folder / picture);
  const std::string ending = path.extension().string();
  const auto is_small = [](unsigned char c) { return std::islower(c) != 0; };
  const auto small = std::count_if(ending.begin(), ending.end(), is_small);
  if (small == 0 || small + 1 == static_cast<std::ptrdiff_t>(ending.size())) return path;
  const fs::path link = results_.Path() / "picture.jpg";
  std::error_code error;
  fs::remove(link, error);
  fs::create_symlink(path, link, error);
  return error ? path : link;
}

void PictureJudge::Fill(const service::AnalysisResult& result, Judgement& judgement) {
  judgement.statistics = result.data;
  judgement.statistics.erase("err_code");
  judgement.finds = FindsOf(analysis_->Latest());
  for (const service::Detection& found : Results(candidates_))
    judgement.candidates.push_back(PredictionOf(found));
  judgement.candidates_full = candidates_.count == service::kMaxDetections;
}

/// An old picture of this name goes in any case: it would show another judgement.
bool PictureJudge::KeepAnnotated(const std::string& picture) const {
  const fs::path target = annotated_ / picture;
  std::error_code error;
  fs::remove(target, error);
  fs::create_directories(target.parent_path(), error);
  const fs::directory_iterator made(results_.Path() / "det", error);
  if (error || made == fs::directory_iterator()) return false;
  fs::rename(made->path(), target, error);
  return !error;
}

}  // namespace varnel::replay
