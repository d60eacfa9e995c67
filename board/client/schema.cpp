#include "virtual_board/client/schema.h"

#include <fmt/format.h>

#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

namespace varnel::board {
namespace {

using nlohmann::json;
using Adapter = valijson::adapters::NlohmannJsonAdapter;

json Resolve(const json& node, const json& document) {
  if (node.is_object() && node.contains("$ref")) {
    const auto reference = node.at("$ref").get<std::string>();
    return Resolve(document.at(json::json_pointer(reference.substr(1))), document);
  }
  json copy = node;
  if (copy.is_structured()) {
    for (json& child : copy) child = Resolve(child, document);
  }
  return copy;
}

}  // namespace

json ResolveReferences(const json& document) {
  return Resolve(document, document);
}

JsonSchema::JsonSchema(const json& schema) : schema_(std::make_unique<valijson::Schema>()) {
  valijson::SchemaParser().populateSchema(Adapter(schema), *schema_);
}
JsonSchema::~JsonSchema() = default;
JsonSchema::JsonSchema(JsonSchema&&) noexcept = default;
JsonSchema& JsonSchema::operator=(JsonSchema&&) noexcept = default;

std::optional<std::string> JsonSchema::Check(const json& value) const {
  valijson::ValidationResults results;
  if (valijson::Validator().validate(*schema_, Adapter(value), &results)) {
    return std::nullopt;
  }
  std::string text;
  valijson::ValidationResults::Error error;
  while (results.popError(error)) {
    const std::string place = fmt::format("{}", fmt::join(error.context, ""));
    text += fmt::format("{}{}: {}", text.empty() ? "" : "; ", place, error.description);
  }
  return text;
}

}  // namespace varnel::board
