#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "replay/box.h"

namespace varnel::replay {

/// Why a find carries a flag.
enum class Reason : uint8_t {
  kNone,         ///< it carries none
  kOnlyShown,    ///< its label is answered with zeros, what it shows belongs there
  kRejected,     ///< by the verifying network
  kTooSmall,     ///< or too thin
  kBehindBed,    ///< at the top of the picture
  kThereBefore,  ///< the reference picture explains it
};

/// For people and report.json; null without a reason.
[[nodiscard]] const char* ReasonText(Reason reason);

/// A find with what the algorithm made of it.
struct Find {
  Prediction prediction;
  uint32_t flag = 0;  ///< service::DetectionFlag bits
  Reason reason = Reason::kNone;
  std::optional<float> verified = std::nullopt;  ///< the verifying network's value

  /// Neither rejected nor explained: the algorithm says that it is there.
  [[nodiscard]] bool Stands() const {
    return reason == Reason::kNone || reason == Reason::kOnlyShown;
  }
};

/// What the analysis said about one picture.
struct Judgement {
  std::string picture;
  std::string status;
  int32_t code = 0;  ///< service::AnalysisCode; without 0 everything below stays empty
  std::string message;
  nlohmann::json statistics = nlohmann::json::object();
  std::vector<Find> finds;             ///< at the thresholds asked for
  std::vector<Prediction> candidates;  ///< at the lowest threshold of a sweep
  bool candidates_full = false;        ///< there may have been more
  bool annotated = false;              ///< an annotated picture was written
  double milliseconds = 0;

  [[nodiscard]] bool Judged() const { return code == 0; }
};

}  // namespace varnel::replay
