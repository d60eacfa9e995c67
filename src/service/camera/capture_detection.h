#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

#include "hal_adapter/photo_taker.h"
#include "service/camera/print_analyser.h"
#include "utils/clock.h"
#include "utils/turn.h"

namespace varnel::service {

/// "camera.detect_capture": a photo, and what the analyser says about it. Callable from any thread:
/// requests are served one after another, since they share the photo's file and the analyser; one
/// that waits longer than 10 s fails.
class CaptureDetection {
 public:
  /// @param camera must outlive this object
  /// @param analyser null when there is none; else the same
  CaptureDetection(hal_adapter::PhotoTaker& camera, PrintAnalyser* analyser, std::string picture,
                   utils::Clock& clock);

  /// Tells the log whether detections can be served.
  void LogState() const;
  /// @return the analyser's data, or an error
  nlohmann::json Detect(const nlohmann::json& params);

 private:
  hal_adapter::PhotoTaker& camera_;
  PrintAnalyser* const analyser_;
  const std::string picture_;
  utils::Turn turn_;  // over the picture's file and the analyser
};

/// Whether the types are right: "labels" a list of texts, "detect_status" a text, "z_position" a
/// number of 32 bits, and what stands under the name of a requested label an object whose
/// "threshold" is a number. All may be absent.
[[nodiscard]] bool AreDetectionParams(const nlohmann::json& params);

}  // namespace varnel::service
