#pragma once

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "virtual_board/client/schema.h"

namespace varnel::board {

/// The machine-readable contract docs/openrpc.json: says whether what a daemon sent is what the
/// document promises. All checks return nothing when all is well, else one sentence that tells what
/// is wrong.
class Contract {
 public:
  /// One example of the document, ready to be run against a daemon.
  struct Example {
    std::string name;    ///< "<method>/<name>", unique in the document
    std::string method;  ///< may be one that no daemon has
    std::string given;   ///< a state that must be arranged first ("camera stalled"); usually empty
    std::string request_topic;   ///< empty for a notification
    std::string response_topic;  ///< for a notification the topic it is sent on
    nlohmann::json params;       ///< null when the request has none
    nlohmann::json answer;       ///< {"result": ...} or {"error": ...}; null for a notification
  };

  /// Throws an exception that tells the first place where the document or an example of it is not
  /// sane.
  explicit Contract(const nlohmann::json& document);
  static Contract Load(const std::filesystem::path& file);

  /// Judges an answer as a whole: envelope, echoed id, then the result against its schema or the
  /// error against the documented ones. Parameters that break the schema must not be answered with
  /// a result.
  std::optional<std::string> CheckAnswer(const std::string& method, const nlohmann::json& request,
                                         const nlohmann::json& response) const;
  /// Judges a message that the daemon sent by itself on `topic`.
  std::optional<std::string> CheckNotification(const std::string& topic,
                                               const nlohmann::json& message) const;

  std::vector<Example> Examples() const;

 private:
  struct Method {
    nlohmann::json document;
    JsonSchema params;
    std::optional<JsonSchema> result;  ///< none for a notification
  };

  void CheckExample(const Example& example) const;
  const Method* Find(const nlohmann::json& name, bool has_result) const;

  nlohmann::json envelope_;
  std::map<std::string, Method> methods_;
};

}  // namespace varnel::board
