#include "service/analysis/network/model_registry.h"

#include <algorithm>
#include <utility>

#include "service/analysis/picture/analysis_log.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = kAnalysisTag;

std::unique_ptr<Model> NewModel(const std::string& name, const ModelSettings& settings,
                                const Npu& npu) {
  if (name == NoodleModel::kName) return std::make_unique<NoodleModel>(settings, npu);
  if (name == BedItemModel::kName) return std::make_unique<BedItemModel>(settings, npu);
  if (name == NoodleVerifyModel::kName) return std::make_unique<NoodleVerifyModel>(settings, npu);
  return nullptr;
}

bool Serves(const Model& model, const std::vector<std::string>& labels) {
  const auto& own = model.Settings().labels;
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
    if (!Create(name, ModelSettings::Read(settings)))
      VLOG_ERROR(kTag, "create model: {} failed", utils::LogText(name));
  }
}

bool ModelRegistry::Create(const std::string& name, const ModelSettings& settings) {
  std::unique_ptr<Model> model = NewModel(name, settings, npu_);
  if (!model) {
    VLOG_WARN(kTag, "no model find with name: {}", utils::LogText(name));
    return true;  // skipped
  }
  if (model->State() != ModelState::kCreated) {
    VLOG_ERROR(kTag, "create model {} failed", name);
    return false;
  }
  if (settings.preload && !EnsureLoaded(*model)) {
    VLOG_ERROR(kTag, "load model {} failed", name);
    return false;
  }
  models_.push_back(std::move(model));
  if (settings.preload) {
    VLOG_INFO(kTag, "load model {} ok", name);
  } else {
    VLOG_INFO(kTag, "create model {} ok", name);
  }
  return true;
}

Model* ModelRegistry::Find(const std::vector<std::string>& labels) const {
  for (const auto& model : models_) {
    if (labels.empty() ? model->Settings().is_default : Serves(*model, labels)) return model.get();
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
