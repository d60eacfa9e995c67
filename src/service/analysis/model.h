#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "service/analysis/detect_request.h"
#include "service/analysis/detection.h"
#include "service/analysis/image_buffer.h"
#include "service/analysis/yolo11.h"

namespace varnel::service {

enum class ModelState : int32_t {
  kCreated = 0,  ///< not on the NPU
  kLoaded = 1,
  kBroken = 2,  ///< names no file; never usable
};

/// One network with its settings. It comes to the NPU when it is first needed. Used by one thread
/// at a time. The settings are read strictly: a wrong type throws nlohmann::json::type_error.
class Model {
 public:
  /// Leaves the NPU.
  virtual ~Model();
  /// As the configuration names it.
  [[nodiscard]] virtual const char* Name() const = 0;

  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  [[nodiscard]] const nlohmann::json& Config() const { return config_; }
  [[nodiscard]] ModelState State() const { return state_; }
  [[nodiscard]] const std::vector<std::string>& Labels() const { return labels_; }
  [[nodiscard]] const std::vector<std::string>& PositiveLabels() const { return positive_labels_; }
  /// How many pictures of it are kept in each result directory.
  [[nodiscard]] size_t PictureLimit() const;
  /// The label of a class; "unknown" for an id beyond the labels.
  [[nodiscard]] const std::string& LabelOf(int32_t cls_id) const;

  /// Brings the network to the NPU unless it is there.
  [[nodiscard]] bool EnsureLoaded(const std::filesystem::path& directory);
  /// Takes it from the NPU, when it is there.
  void Release();

  /// Finds objects in a picture with a threshold for each label. A network that fails leaves the
  /// NPU: after a time-out or a reset its context would fail for ever.
  /// @return 0 or kAnalysisInferenceFailed
  [[nodiscard]] int Detect(const ImageBuffer& picture, const DetectRequest& request,
                           DetectionList& found);
  /// The score that a result of each label must exceed.
  [[nodiscard]] std::vector<float> Thresholds(const DetectRequest& request) const;
  /// Shows the candidates of each picture from now on; null ends it.
  void Observe(const CandidateObserver* observer) { context_.observer = observer; }
  /// The values that a classifying network gives a picture. One that fails leaves the NPU, too.
  /// @return 0 or negative
  [[nodiscard]] int Classify(const ImageBuffer& picture, std::vector<float>& values);

 protected:
  Model(const char* name, nlohmann::json config, const Npu& npu, NetworkKind kind);

 private:
  const nlohmann::json config_;
  ModelState state_ = ModelState::kCreated;
  const std::vector<std::string> labels_;
  const std::vector<std::string> positive_labels_;
  const NetworkUse use_;
  NpuContext context_;
};

/// Finds filament that was printed into the air.
class NoodleModel : public Model {
 public:
  static constexpr const char* kName = "print_check";
  NoodleModel(nlohmann::json config, const Npu& npu)
      : Model(kName, std::move(config), npu, NetworkKind::kDetecting) {}
  [[nodiscard]] const char* Name() const override { return kName; }
};

/// Finds what lies on the bed.
class BedItemModel : public Model {
 public:
  static constexpr const char* kName = "bed_check";
  BedItemModel(nlohmann::json config, const Npu& npu)
      : Model(kName, std::move(config), npu, NetworkKind::kDetecting) {}
  [[nodiscard]] const char* Name() const override { return kName; }
};

/// Classifies what NoodleModel found.
class NoodleVerifyModel : public Model {
 public:
  static constexpr const char* kName = "noodle_verify";
  NoodleVerifyModel(nlohmann::json config, const Npu& npu)
      : Model(kName, std::move(config), npu, NetworkKind::kClassifying) {}
  [[nodiscard]] const char* Name() const override { return kName; }
};

}  // namespace varnel::service
