#pragma once

#include <string>

#include "hal_adapter/area_start.h"

namespace varnel::hal_adapter {

/// The AI area: where the platform keeps detection results.
class AiAdapter {
 public:
  explicit AiAdapter(AreaInit init, const HalRegistry& registry = HalRegistry::Instance());

  /// Once, before anything else.
  [[nodiscard]] bool Start();
  /// Empty on failure.
  [[nodiscard]] std::string DetectResultDir() const;

 private:
  const AreaInit init_;
  const HalRegistry& registry_;
  const AiHalInterface* table_ = nullptr;
};

}  // namespace varnel::hal_adapter
