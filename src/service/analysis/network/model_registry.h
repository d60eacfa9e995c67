#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "service/analysis/network/model.h"

namespace varnel::service {

/// The models of a configuration and which of them are on the NPU. Used by one thread at a time.
class ModelRegistry {
 public:
  /// @param directory where the network files are
  ModelRegistry(std::filesystem::path directory, const Npu& npu);
  /// Releases every model.
  ~ModelRegistry();
  ModelRegistry(const ModelRegistry&) = delete;
  ModelRegistry& operator=(const ModelRegistry&) = delete;

  /// Creates the configuration's models in the order of their names. Those that cannot be used are
  /// logged and left out; a value of a wrong type throws nlohmann::json::type_error.
  void CreateAll(const nlohmann::json& config);

  /// The first model that serves all these labels; for no labels the default one. Null when there
  /// is none.
  [[nodiscard]] Model* Find(const std::vector<std::string>& labels) const;
  [[nodiscard]] bool EnsureLoaded(Model& model) const { return model.EnsureLoaded(directory_); }

  /// The NPU has room for one detection network at a time: models leave it as soon as they are not
  /// needed.
  [[nodiscard]] bool Unloads() const { return unloads_; }
  void ReleaseOthers(const Model& kept) const;
  void ReleaseAfterUse(Model& model) const;

  [[nodiscard]] const std::vector<std::unique_ptr<Model>>& Models() const { return models_; }

 private:
  bool Create(const std::string& name, const ModelSettings& settings);

  const std::filesystem::path directory_;
  const Npu npu_;
  bool unloads_ = false;
  std::vector<std::unique_ptr<Model>> models_;
};

}  // namespace varnel::service
