#include "service/analysis/decision/printer_analysis.h"

#include <utility>

#include "service/analysis/decision/bed_item_algorithm.h"
#include "service/analysis/decision/noodle_algorithm.h"
#include "service/analysis/decision/wrap_head_algorithm.h"
#include "service/analysis/picture/analysis_log.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = kAnalysisTag;

/// A clean picture answers every label.
void FillWithZeros(const std::vector<std::string>& labels, json& output) {
  const json zeros = {
      {"obj_areas", 0.0}, {"obj_cnts", 0}, {"obj_probs", 0.0}, {"obj_weighted_probs", 0.0}};
  for (const std::string& label : labels) {
    if (!output.contains(label)) output[label] = zeros;
  }
}

utils::Clock& ClockOf(const AnalysisSetup& setup) {
  return setup.clock != nullptr ? *setup.clock : utils::SystemClock::Instance();
}

}  // namespace

PrinterAnalysis::State::State(const AnalysisSetup& setup)
    : workspace{.npu = NpuThread(ClockOf(setup)),
                .models = ModelRegistry(setup.models, {workspace.npu, setup.library}),
                .reference = {},
                .pictures = ResultPictures(setup.results, setup.has_space),
                .latest = {}},
      algorithms{std::make_unique<NoodleAlgorithm>(), std::make_unique<BedItemAlgorithm>(),
                 std::make_unique<WrapHeadAlgorithm>()} {
  const json config = json::parse(setup.config, nullptr, false);
  if (!config.is_object()) {
    VLOG_ERROR(kTag, "The model configuration is no JSON object");
    return;
  }
  ready = true;
  workspace.models.CreateAll(config);
  workspace.pictures.CreateDirectories();
}

/// One detection, with all that it needs.
struct PrinterAnalysis::Job {
  const std::shared_ptr<State> state;
  PrinterAnalysisAlgorithm& algorithm;
  const std::string path;
  const DetectRequest request;
  const std::set<PrinterAnalysisAlgorithm*> begun;
  AnalysisStatus status = AnalysisStatus::kInferenceFailed;
  json output = json::object();

  void Run() {
    for (PrinterAnalysisAlgorithm* other : begun) other->BeginPrint(state->workspace);
    state->workspace.latest = {};
    status = algorithm.Detect(state->workspace, path, request, output);
    if (status == AnalysisStatus::kSuccess) FillWithZeros(algorithm.Labels(), output);
  }
};

PrinterAnalysis::PrinterAnalysis(const AnalysisSetup& setup)
    : state_(std::make_shared<State>(setup)) {}

PrinterAnalysis::~PrinterAnalysis() {
  VLOG_INFO(kTag, "PrinterAnalysis releasing...");
}

AnalysisResult PrinterAnalysis::DetectPicture(const std::string& path, const json& params) {
  AnalysisResult result;
  result.status = Detect(path, DetectRequest(params), result.data);
  result.data["err_code"] = result.Code();
  return result;
}

AnalysisStatus PrinterAnalysis::Detect(const std::string& path, const DetectRequest& request,
                                       json& output) {
  if (!state_->ready) return AnalysisStatus::kNotReady;
  if (path.empty()) {
    VLOG_ERROR(kTag, "DetectPicture error, path is empty");
    return AnalysisStatus::kNoPath;
  }
  PrinterAnalysisAlgorithm* algorithm = FindAlgorithm(request.labels);
  if (algorithm == nullptr) {
    VLOG_ERROR(kTag, "DetectPicture cannot find algorithm {}", JoinedLabels(request.labels));
    return AnalysisStatus::kNoAlgorithm;
  }
  return Detect(std::make_shared<Job>(Job{state_, *algorithm, path, request, begun_}), output);
}

AnalysisStatus PrinterAnalysis::Detect(const std::shared_ptr<Job>& job, json& output) {
  NpuThread& npu = state_->workspace.npu;
  const bool refused = !npu.Answers();
  const bool done = npu.Do([job] { job->Run(); });
  if (done || !refused) {
    begun_.clear();  // it told them
  } else if (job->request.First()) {
    begun_.insert(&job->algorithm);
  }
  if (!done) return AnalysisStatus::kInferenceFailed;
  output = std::move(job->output);
  return job->status;
}

PrinterAnalysisAlgorithm* PrinterAnalysis::FindAlgorithm(
    const std::vector<std::string>& labels) const {
  for (const auto& algorithm : state_->algorithms)
    if (algorithm->Labels() == labels) return algorithm.get();
  VLOG_ERROR(kTag, "cannot find algorithm for labels {}", JoinedLabels(labels));
  return nullptr;
}

}  // namespace varnel::service
