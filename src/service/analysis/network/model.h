#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <utility>

#include "service/analysis/network/detection.h"
#include "service/analysis/network/model_settings.h"
#include "service/analysis/network/yolo11.h"
#include "service/analysis/picture/image_buffer.h"

namespace varnel::service {

enum class ModelState : int32_t {
  kCreated = 0,  ///< not on the NPU
  kLoaded = 1,
  kBroken = 2,  ///< names no file; never usable
};

/// One network with its settings. It comes to the NPU when it is first needed. Used by one thread
/// at a time.
class Model {
 public:
  /// Leaves the NPU.
  virtual ~Model();
  /// As the configuration names it.
  [[nodiscard]] virtual const char* Name() const = 0;

  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  [[nodiscard]] const ModelSettings& Settings() const { return settings_; }
  [[nodiscard]] ModelState State() const { return state_; }
  /// The label of a class; "unknown" for an id beyond the labels.
  [[nodiscard]] const std::string& LabelOf(int32_t cls_id) const;

  /// Brings the network to the NPU unless it is there.
  [[nodiscard]] bool EnsureLoaded(const std::filesystem::path& directory);
  /// Takes it from the NPU, when it is there.
  void Release();

  /// Finds objects in a picture. A network that fails leaves the NPU: after a time-out or a reset
  /// its context would fail for ever.
  /// @param thresholds the score that a result of each label must exceed
  /// @return 0 or negative
  [[nodiscard]] int Detect(const ImageBuffer& picture, std::span<const float> thresholds,
                           DetectionList& found);
  /// Shows the candidates of each picture from now on; null ends it.
  void Observe(const CandidateObserver* observer) { context_.observer = observer; }
  /// The values that a classifying network gives a picture. One that fails leaves the NPU, too.
  /// @return 0 or negative
  [[nodiscard]] int Classify(const ImageBuffer& picture, std::vector<float>& values);

 protected:
  Model(const char* name, ModelSettings settings, const Npu& npu, NetworkKind kind);

 private:
  const ModelSettings settings_;
  ModelState state_ = ModelState::kCreated;
  const NetworkUse use_;
  NpuContext context_;
};

/// Finds filament that was printed into the air.
class NoodleModel : public Model {
 public:
  static constexpr const char* kName = "print_check";
  NoodleModel(ModelSettings settings, const Npu& npu)
      : Model(kName, std::move(settings), npu, NetworkKind::kDetecting) {}
  [[nodiscard]] const char* Name() const override { return kName; }
};

/// Finds what lies on the bed.
class BedItemModel : public Model {
 public:
  static constexpr const char* kName = "bed_check";
  BedItemModel(ModelSettings settings, const Npu& npu)
      : Model(kName, std::move(settings), npu, NetworkKind::kDetecting) {}
  [[nodiscard]] const char* Name() const override { return kName; }
};

/// Classifies what NoodleModel found.
class NoodleVerifyModel : public Model {
 public:
  static constexpr const char* kName = "noodle_verify";
  NoodleVerifyModel(ModelSettings settings, const Npu& npu)
      : Model(kName, std::move(settings), npu, NetworkKind::kClassifying) {}
  [[nodiscard]] const char* Name() const override { return kName; }
};

}  // namespace varnel::service
