#include "service/analysis/model_registry.h"

#include <algorithm>
#include <utility>

#include "service/analysis/analysis_log.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = kAnalysisTag;

std::unique_ptr<Model> NewModel(const std::string& name, const json& config, const Npu& npu) {
  if (name == NoodleModel::kName) return std::make_unique<NoodleModel>(config, npu);
  if (name == BedItemModel::kName) return std::make_unique<BedItemModel>(config, npu);
  if (name == NoodleVerifyModel::kName) return std::make_unique<NoodleVerifyModel>(config, npu);
  return nullptr;
}

bool Serves(const Model& model, const std::vector<std::string>& labels) {
  const auto& own = model.Labels();
  return std::all_of(labels.begin(), labels.end(), [&own](const std::string& label) {
    return std::find(own.begin(), own.end(), label) != own.end();
  });
}

}  // namespace

ModelRegistry::ModelRegistry(std::filesystem::path directory, const Npu& npu)
    : directory_(std::move(directory)), npu_(npu) {}

ModelRegistry::~ModelRegistry() {
  for (const auto& model : models_) model->Release();
}

void ModelRegistry::CreateAll(const json& config) {
  unloads_ = config.value("enable_model_unload", false);
  const json models = config.value("models", json::object());
  for (const auto& [name, settings] : models.items()) {
    if (!Create(name, settings)) VLOG_ERROR(kTag, "create model: {} failed", utils::LogText(name));
  }
}

bool ModelRegistry::Create(const std::string& name, const json& config) {
  std::unique_ptr<Model> model = NewModel(name, config, npu_);
  if (!model) {
    VLOG_WARN(kTag, "no model find with name: {}", utils::LogText(name));
    return true;  // skipped
  }
  if (model->State() != ModelState::kCreated) {
    VLOG_ERROR(kTag, "create model {} failed", name);
    return false;
  }
  const bool preload = config.value("preload", false);
  if (preload && !EnsureLoaded(*model)) {
    VLOG_ERROR(kTag, "load model {} failed", name);
    return false;
  }
  models_.push_back(std::move(model));
  if (preload) {
    VLOG_INFO(kTag, "load model {} ok", name);
  } else {
    VLOG_INFO(kTag, "create model {} ok", name);
  }
  return true;
}

Model* ModelRegistry::Find(const json& labels) const {
  const std::vector<std::string> wanted = TextList(labels);
  for (const auto& model : models_) {
    if (wanted.empty() ? model->Config().value("is_default", false) : Serves(*model, wanted))
      return model.get();
  }
  return nullptr;
}

void ModelRegistry::ReleaseOthers(const Model& kept) const {
  if (!unloads_) return;
  for (const auto& model : models_)
    if (model.get() != &kept) model->Release();
}

void ModelRegistry::ReleaseAfterUse(Model& model) const {
  if (unloads_) model.Release();
}

}  // namespace varnel::service
