#include "service/analysis/printer_analysis.h"

#include <utility>

#include "service/analysis/analysis_log.h"
#include "service/analysis/bed_item_algorithm.h"
#include "service/analysis/noodle_algorithm.h"
#include "service/analysis/wrap_head_algorithm.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = kAnalysisTag;

template <class Algorithm>
std::unique_ptr<PrinterAnalysisAlgorithm> Serving(std::vector<std::string> labels) {
  return std::make_unique<Algorithm>(std::move(labels));
}

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

PrinterAnalysis::PrinterAnalysis(const AnalysisSetup& setup)
    : workspace_{.npu = NpuThread(ClockOf(setup)),
                 .models = ModelRegistry(setup.models, {workspace_.npu, setup.library}),
                 .reference = {},
                 .pictures = ResultPictures(setup.results, setup.has_space),
                 .latest = {}},
      algorithms_{Serving<NoodleAlgorithm>({"noodle"}),
                  Serving<BedItemAlgorithm>({"item", "nozzle", "legend_text", "extrusion_line"}),
                  Serving<WrapHeadAlgorithm>({"wraphead"})} {
  const json config = json::parse(setup.config, nullptr, false);
  if (config.is_object()) {
    Initialise(config);
  } else {
    VLOG_ERROR(kTag, "The model configuration is no JSON object");
  }
}

PrinterAnalysis::~PrinterAnalysis() {
  VLOG_INFO(kTag, "PrinterAnalysis releasing...");
}

void PrinterAnalysis::Initialise(const json& config) {
  ready_ = true;
  workspace_.models.CreateAll(config);
  workspace_.pictures.CreateDirectories();
}

AnalysisResult PrinterAnalysis::DetectPicture(const std::string& path, const json& params) {
  AnalysisResult result;
  result.code = Detect(path, DetectRequest(params), result.data);
  result.data["err_code"] = result.code;
  return result;
}

int PrinterAnalysis::Detect(const std::string& path, const DetectRequest& request, json& output) {
  workspace_.latest = {};
  if (!ready_) return kAnalysisNotReady;
  if (path.empty()) {
    VLOG_ERROR(kTag, "DetectPicture error, path is empty");
    return kAnalysisNoPath;
  }
  PrinterAnalysisAlgorithm* algorithm = FindAlgorithm(request.labels);
  if (algorithm == nullptr) {
    VLOG_ERROR(kTag, "DetectPicture cannot find algorithm {}", JoinedLabels(request.labels));
    return kAnalysisNoAlgorithm;
  }
  const int code = algorithm->Detect(workspace_, path, request, output);
  if (code == kAnalysisSuccess) FillWithZeros(algorithm->Labels(), output);
  return code;
}

PrinterAnalysisAlgorithm* PrinterAnalysis::FindAlgorithm(const json& labels) const {
  const std::vector<std::string> wanted = TextList(labels);
  for (const auto& algorithm : algorithms_)
    if (algorithm->Labels() == wanted) return algorithm.get();
  VLOG_ERROR(kTag, "cannot find algorithm for labels {}", JoinedLabels(labels));
  return nullptr;
}

}  // namespace varnel::service
