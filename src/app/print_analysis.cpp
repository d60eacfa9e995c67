#include "app/print_analysis.h"

#include <utility>

namespace varnel::app {
namespace {

service::AnalysisSetup SetupOf(const std::string& results, utils::SpaceCheck has_space) {
  service::AnalysisSetup setup;
  if (!results.empty()) setup.results = results;
  setup.has_space = std::move(has_space);
  return setup;
}

}  // namespace

PrintAnalysis::PrintAnalysis(const std::string& results, utils::SpaceCheck has_space)
    : analysis_(SetupOf(results, std::move(has_space))) {}

PrintAnalysis::Answer PrintAnalysis::Detect(const std::string& picture,
                                            const nlohmann::json& params) {
  service::AnalysisResult result = analysis_.DetectPicture(picture, params);
  return {result.Code(), result.Message(), std::move(result.data)};
}

}  // namespace varnel::app
