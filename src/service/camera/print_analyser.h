#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace varnel::service {

/// What judges pictures of a print for the camera service, one at a time.
class PrintAnalyser {
 public:
  /// How an analysis ended.
  struct Answer {
    int code = 0;         ///< 0: success
    std::string message;  ///< of the code
    nlohmann::json data;  ///< for the client
  };

  virtual ~PrintAnalyser() = default;
  [[nodiscard]] virtual bool Ready() const = 0;
  /// @param params the client's, with the right types
  [[nodiscard]] virtual Answer Detect(const std::string& picture, const nlohmann::json& params) = 0;
};

}  // namespace varnel::service
