#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "replay/box.h"

namespace varnel::replay {

/// A find with what the algorithm made of it.
struct Find {
  Prediction prediction;
  uint32_t flag = 0;    ///< service::DetectionFlag bits
  bool stands = false;  ///< neither rejected nor explained: the algorithm says that it is there
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
