#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace valijson {
class Schema;
}

namespace varnel::board {

/// A copy of `document` in which every {"$ref": "#/..."} is replaced by what it points at. Throws
/// for a reference that leads nowhere.
nlohmann::json ResolveReferences(const nlohmann::json& document);

/// One compiled JSON Schema (draft 7, no references).
class JsonSchema {
 public:
  /// Throws std::runtime_error when `schema` is not a usable schema.
  explicit JsonSchema(const nlohmann::json& schema);
  ~JsonSchema();
  JsonSchema(JsonSchema&&) noexcept;
  JsonSchema& operator=(JsonSchema&&) noexcept;

  /// Nothing when `value` fits, else where and why it does not.
  std::optional<std::string> Check(const nlohmann::json& value) const;

 private:
  std::unique_ptr<valijson::Schema> schema_;
};

}  // namespace varnel::board
