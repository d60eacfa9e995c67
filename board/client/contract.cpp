#include "virtual_board/client/contract.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <stdexcept>

namespace varnel::board {
namespace {

using nlohmann::json;
using Problem = std::optional<std::string>;

/// The by-name parameters of a method as one schema of the "params" object. Unknown ones are
/// ignored by the daemon.
JsonSchema ParamsSchema(const json& method) {
  json schema = {{"type", "object"}, {"properties", json::object()}, {"required", json::array()}};
  for (const json& param : method.at("params")) {
    const auto name = param.at("name").get<std::string>();
    schema["properties"][name] = param.at("schema");
    if (param.value("required", false)) schema["required"].push_back(name);
  }
  return JsonSchema(schema);
}

std::optional<JsonSchema> ResultSchema(const json& method) {
  if (!method.contains("result")) return std::nullopt;
  return JsonSchema(method.at("result").at("schema"));
}

Contract::Example MakeExample(const json& node, const std::string& method, const json& topics) {
  Contract::Example example{.name = method + "/" + node.at("name").get<std::string>(),
                            .method = method,
                            .given = node.value("given", ""),
                            .request_topic = topics.value("request", ""),
                            .response_topic = topics.contains("request")
                                                  ? topics.at("response")
                                                  : topics.at("notification"),
                            .params = nullptr,
                            .answer = nullptr};
  if (node.contains("error")) {
    example.params = node.value("params", json());
    example.answer = {{"error", node.at("error")}};
    return example;
  }
  for (const json& item : node.at("params")) {
    example.params[item.at("name").get<std::string>()] = item.at("value");
  }
  if (node.contains("result")) example.answer = {{"result", node.at("result").at("value")}};
  return example;
}

bool HasOnly(const json& object, const std::set<std::string>& allowed) {
  const auto items = object.items();
  return std::all_of(items.begin(), items.end(),
                     [&](const auto& item) { return allowed.contains(item.key()); });
}

/// "<name>" in documented data stands for the name of the method that was called.
bool IsDocumented(const json& error, const json& documented, const std::string& method) {
  return std::any_of(documented.begin(), documented.end(), [&](json candidate) {
    candidate.erase("x-description");
    if (candidate.contains("data") && candidate.at("data").is_string()) {
      auto data = candidate.at("data").get<std::string>();
      if (const auto at = data.find("<name>"); at != data.npos) data.replace(at, 6, method);
      candidate["data"] = data;
    }
    return error == candidate;
  });
}

Problem CheckEnvelope(const json& request, const json& response) {
  if (!request.is_object() || !response.is_object()) {
    return "request and answer must be JSON objects";
  }
  if (response.value("jsonrpc", json()) != "2.0") {
    return "the answer's \"jsonrpc\" is not \"2.0\"";
  }
  if (!request.contains("id")) return "a notification was answered";
  if (!response.contains("id") || response.at("id") != request.at("id")) {
    return "the answer's \"id\" is not the request's";
  }
  if (response.contains("result") == response.contains("error")) {
    return "the answer needs either \"result\" or \"error\"";
  }
  if (!HasOnly(response, {"jsonrpc", "id", "result", "error"})) {
    return "the answer has members that no answer has";
  }
  return std::nullopt;
}

}  // namespace

Contract::Contract(const json& document) {
  const json resolved = ResolveReferences(document);
  envelope_ = resolved.at("x-envelope");
  for (const json& method : resolved.at("methods")) {
    const auto name = method.at("name").get<std::string>();
    Method entry{method, ParamsSchema(method), ResultSchema(method)};
    if (!methods_.emplace(name, std::move(entry)).second) {
      throw std::runtime_error(name + ": the name is not unique");
    }
  }
  std::set<std::string> names;
  for (const Example& example : Examples()) {
    if (!names.insert(example.name).second) {
      throw std::runtime_error(example.name + ": the name is not unique");
    }
    CheckExample(example);
  }
}

Contract Contract::Load(const std::filesystem::path& file) {
  std::ifstream stream(file);
  return Contract(json::parse(stream));
}

void Contract::CheckExample(const Example& example) const {
  json message = {{"jsonrpc", "2.0"}, {"method", example.method}};
  if (!example.params.is_null()) message["params"] = example.params;
  Problem problem;
  if (example.answer.is_null()) {
    problem = CheckNotification(example.response_topic, message);
  } else {
    message["id"] = 1;
    json answer = example.answer;
    answer.update({{"jsonrpc", "2.0"}, {"id", 1}});
    problem = CheckAnswer(example.method, message, answer);
  }
  if (problem) throw std::runtime_error(example.name + ": " + *problem);
}

const Contract::Method* Contract::Find(const json& name, bool has_result) const {
  const auto known = name.is_string() ? methods_.find(name) : methods_.end();
  const bool found = known != methods_.end() && known->second.result.has_value() == has_result;
  return found ? &known->second : nullptr;
}

Problem Contract::CheckAnswer(const std::string& name, const json& request,
                              const json& response) const {
  if (Problem problem = CheckEnvelope(request, response)) return problem;
  const Method* method = Find(name, true);
  if (response.contains("error")) {
    const json& error = response.at("error");
    if (method != nullptr && error.is_object() && error.value("code", json()) == -32601) {
      return "a documented method was not found";
    }
    const bool documented =
        IsDocumented(error, envelope_.at("errors"), name) ||
        (method != nullptr && IsDocumented(error, method->document.at("errors"), name));
    if (documented) return std::nullopt;
    return fmt::format("the error {} is not documented for \"{}\"", error.dump(), name);
  }
  if (method == nullptr) return name + " is not documented as a method with a result";
  const json& params = request.value("params", json());
  const Problem wrong = method->params.Check(params.is_null() ? json::object() : params);
  if (wrong && !method->document.at("params").empty()) {
    return "wrong parameters were answered with a result: " + *wrong;
  }
  return method->result->Check(response.at("result"));
}

Problem Contract::CheckNotification(const std::string& topic, const json& message) const {
  if (!message.is_object() || message.value("jsonrpc", json()) != "2.0" ||
      !HasOnly(message, {"jsonrpc", "method", "params"})) {
    return "a notification has \"jsonrpc\" \"2.0\", \"method\" and \"params\" only";
  }
  const json& name = message.value("method", json());
  const Method* method = Find(name, false);
  if (method == nullptr) return name.dump() + " is not documented as a notification";
  if (method->document.at("x-topics").at("notification") != topic) {
    return name.dump() + " does not belong on " + topic;
  }
  return method->params.Check(message.value("params", json::object()));
}

std::vector<Contract::Example> Contract::Examples() const {
  std::vector<Example> examples;
  for (const auto& [name, method] : methods_) {
    for (const char* kind : {"examples", "x-error-examples"}) {
      for (const json& node : method.document.value(kind, json::array())) {
        examples.push_back(MakeExample(node, name, method.document.at("x-topics")));
      }
    }
  }
  for (const json& node : envelope_.at("x-error-examples")) {
    examples.push_back(MakeExample(node, node.at("method"), node.at("x-topics")));
  }
  return examples;
}

}  // namespace varnel::board
