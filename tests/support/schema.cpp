#include "support/schema.h"

#include <fmt/format.h>

#include <stdexcept>
#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

namespace varnel::test {
namespace {

using nlohmann::json;
using Adapter = valijson::adapters::NlohmannJsonAdapter;

// No contract nests deeper than this; a circle of references does.
constexpr int kMaxDepth = 100;

json Resolve(const json& node, const json& document, int depth);

json Target(const std::string& reference, const json& document, int depth) {
  const bool local = reference.starts_with("#/");
  const json::json_pointer pointer(local ? reference.substr(1) : "");
  if (!local || !document.contains(pointer)) {
    throw std::runtime_error(fmt::format("the reference \"{}\" leads nowhere", reference));
  }
  return Resolve(document.at(pointer), document, depth + 1);
}

json Resolve(const json& node, const json& document, int depth) {
  if (depth > kMaxDepth) {
    throw std::runtime_error("the references run in a circle");
  }
  if (node.is_object() && node.contains("$ref")) {
    return Target(node.at("$ref").get<std::string>(), document, depth);
  }
  json copy = node;
  if (copy.is_structured()) {
    for (json& child : copy) {
      child = Resolve(child, document, depth + 1);
    }
  }
  return copy;
}

}  // namespace

json ResolveReferences(const json& document) {
  return Resolve(document, document, 0);
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

}  // namespace varnel::test
