#include "support/contract.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <stdexcept>

#include "support/schema.h"

namespace varnel::test {
namespace {

using nlohmann::json;
using Problem = std::optional<std::string>;

[[noreturn]] void Refuse(const std::string& where, const std::string& why) {
  throw std::runtime_error(fmt::format("{}: {}", where, why));
}

const json& Need(const json& node, const char* key, const std::string& where) {
  if (!node.is_object() || !node.contains(key)) {
    Refuse(where, fmt::format("\"{}\" is missing", key));
  }
  return node.at(key);
}

// The by-name parameters of a method as one schema of the "params" object. Unknown ones are ignored
// by the daemon.
json ParamsSchema(const json& method, const std::string& name) {
  json schema = {{"type", "object"}, {"properties", json::object()}, {"required", json::array()}};
  for (const json& param : Need(method, "params", name)) {
    const auto param_name = Need(param, "name", name).get<std::string>();
    if (Need(param, "description", param_name).get<std::string>().empty()) {
      Refuse(param_name, "the description is empty");
    }
    schema["properties"][param_name] = Need(param, "schema", param_name);
    if (param.value("required", false)) {
      schema["required"].push_back(param_name);
    }
  }
  return schema;
}

json ExampleParams(const json& pairing) {
  json params;
  for (const json& item : pairing.at("params")) {
    params[item.at("name").get<std::string>()] = item.at("value");
  }
  return params;
}

bool SameKeys(const json& object, const std::set<std::string>& allowed) {
  for (const auto& [key, value] : object.items()) {
    if (!allowed.contains(key)) {
      return false;
    }
  }
  return true;
}

// "<name>" in the documented data stands for the name of the method that was called.
json ExpectedData(const json& documented, const std::string& method) {
  if (!documented.is_string()) {
    return documented;
  }
  auto text = documented.get<std::string>();
  if (const auto at = text.find("<name>"); at != std::string::npos) {
    text.replace(at, 6, method);
  }
  return text;
}

bool ErrorFits(const json& error, const json& documented, const std::string& method) {
  json expected = {{"code", documented.at("code")}, {"message", documented.at("message")}};
  if (documented.contains("data")) {
    expected["data"] = ExpectedData(documented.at("data"), method);
  }
  return error == expected;
}

bool AnyErrorFits(const json& error, const json& documented, const std::string& method) {
  return std::any_of(documented.begin(), documented.end(),
                     [&](const json& candidate) { return ErrorFits(error, candidate, method); });
}

Problem CheckEnvelope(const json& request, const json& response) {
  if (!request.is_object() || !response.is_object()) {
    return "request and answer must be JSON objects";
  }
  if (response.value("jsonrpc", json()) != "2.0") {
    return "the answer's \"jsonrpc\" is not \"2.0\"";
  }
  if (!request.contains("id")) {
    return "a notification was answered";
  }
  if (!response.contains("id") || response.at("id") != request.at("id")) {
    return "the answer's \"id\" is not the request's";
  }
  if (response.contains("result") == response.contains("error")) {
    return "the answer needs either \"result\" or \"error\"";
  }
  if (!SameKeys(response, {"jsonrpc", "id", "result", "error"})) {
    return "the answer has members that no answer has";
  }
  return std::nullopt;
}

}  // namespace

struct Contract::Parts {
  struct Method {
    json document;
    JsonSchema params;
    std::optional<JsonSchema> result;  // none for a notification
    std::string topic;                 // of a notification
  };

  json envelope;
  std::map<std::string, Method> methods;

  explicit Parts(const json& document);
  void Add(const json& method);
  Problem CheckError(const std::string& name, const json& error) const;
  Problem CheckResult(const Method& method, const json& request, const json& result) const;
};

namespace {

void CheckErrorList(const json& errors, const std::string& where) {
  for (const json& error : errors) {
    if (!Need(error, "code", where).is_number_integer() ||
        !Need(error, "message", where).is_string()) {
      Refuse(where, "an error needs an integer \"code\" and a text \"message\"");
    }
    Need(error, "x-description", where);
  }
}

void CheckTopics(const json& method, const std::string& name) {
  const json& topics = Need(method, "x-topics", name);
  if (method.contains("result")) {
    Need(topics, "request", name);
    Need(topics, "response", name);
  } else {
    Need(topics, "notification", name);
  }
}

void CheckMethodText(const json& method, const std::string& name) {
  if (Need(method, "summary", name).get<std::string>().empty() ||
      Need(method, "description", name).get<std::string>().empty()) {
    Refuse(name, "summary or description is empty");
  }
  if (Need(method, "paramStructure", name) != "by-name") {
    Refuse(name, "parameters are by name");
  }
  if (Need(method, "examples", name).empty()) {
    Refuse(name, "there is no example");
  }
}

Contract::Example MakeExample(const json& node, const std::string& method, const json& topics) {
  Contract::Example example;
  example.name = method + "/" + node.at("name").get<std::string>();
  example.method = method;
  example.given = node.value("given", "");
  example.request_topic = topics.value("request", "");
  example.response_topic = topics.value("response", topics.value("notification", ""));
  return example;
}

Contract::Example GoodExample(const json& node, const std::string& method, const json& topics) {
  Contract::Example example = MakeExample(node, method, topics);
  example.params = ExampleParams(node);
  if (node.contains("result")) {
    example.answer = {{"result", node.at("result").at("value")}};
  }
  return example;
}

Contract::Example ErrorExample(const json& node, const std::string& method, const json& topics) {
  Contract::Example example = MakeExample(node, method, topics);
  example.params = node.value("params", json());
  example.answer = {{"error", node.at("error")}};
  return example;
}

}  // namespace

Contract::Parts::Parts(const json& document) : envelope(Need(document, "x-envelope", "document")) {
  CheckErrorList(Need(envelope, "errors", "x-envelope"), "x-envelope");
  Need(envelope, "x-error-examples", "x-envelope");
  for (const json& method : Need(document, "methods", "document")) {
    Add(method);
  }
}

void Contract::Parts::Add(const json& method) {
  const auto name = Need(method, "name", "methods").get<std::string>();
  CheckMethodText(method, name);
  CheckTopics(method, name);
  std::optional<JsonSchema> result;
  if (method.contains("result")) {
    CheckErrorList(Need(method, "errors", name), name);
    Need(method, "x-error-examples", name);
    result.emplace(Need(method.at("result"), "schema", name));
  }
  const std::string topic = method.at("x-topics").value("notification", "");
  Method parts{method, JsonSchema(ParamsSchema(method, name)), std::move(result), topic};
  if (!methods.emplace(name, std::move(parts)).second) {
    Refuse(name, "the name is not unique");
  }
}

Problem Contract::Parts::CheckError(const std::string& name, const json& error) const {
  const auto known = methods.find(name);
  const bool callable = known != methods.end() && known->second.result;
  if (callable && error.is_object() && error.value("code", json()) == -32601) {
    return "a documented method was not found";
  }
  if (AnyErrorFits(error, envelope.at("errors"), name)) {
    return std::nullopt;
  }
  if (callable && AnyErrorFits(error, known->second.document.at("errors"), name)) {
    return std::nullopt;
  }
  return fmt::format("the error {} is not documented for \"{}\"", error.dump(), name);
}

Problem Contract::Parts::CheckResult(const Method& method, const json& request,
                                     const json& result) const {
  const json& params = request.value("params", json());
  if (const Problem wrong = method.params.Check(params.is_null() ? json::object() : params);
      wrong && !method.document.at("params").empty()) {
    return fmt::format("wrong parameters were answered with a result: {}", *wrong);
  }
  return method.result->Check(result);
}

json Contract::Example::Request(const json& id) const {
  json request = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
  if (!params.is_null()) {
    request["params"] = params;
  }
  return request;
}

json Contract::Example::Response(const json& id) const {
  json response = answer;
  response["jsonrpc"] = "2.0";
  response["id"] = id;
  return response;
}

Contract::Contract(const json& document)
    : parts_(std::make_unique<Parts>(ResolveReferences(document))) {
  std::set<std::string> names;
  for (const Example& example : Examples()) {
    if (!names.insert(example.name).second) {
      Refuse(example.name, "the name is not unique");
    }
    const Problem problem =
        example.answer.is_null()
            ? CheckNotification(
                  example.response_topic,
                  {{"jsonrpc", "2.0"}, {"method", example.method}, {"params", example.params}})
            : CheckAnswer(example.method, example.Request(1), example.Response(1));
    if (problem) {
      Refuse(example.name, *problem);
    }
  }
}
Contract::~Contract() = default;
Contract::Contract(Contract&&) noexcept = default;
Contract& Contract::operator=(Contract&&) noexcept = default;

Contract Contract::Load(const std::filesystem::path& file) {
  std::ifstream stream(file);
  if (!stream) {
    Refuse(file.string(), "cannot be read");
  }
  return Contract(json::parse(stream));
}

Problem Contract::CheckAnswer(const std::string& method, const json& request,
                              const json& response) const {
  if (Problem problem = CheckEnvelope(request, response)) {
    return problem;
  }
  if (response.contains("error")) {
    return parts_->CheckError(method, response.at("error"));
  }
  const auto known = parts_->methods.find(method);
  if (known == parts_->methods.end() || !known->second.result) {
    return fmt::format("\"{}\" is not documented as a method with a result", method);
  }
  return parts_->CheckResult(known->second, request, response.at("result"));
}

Problem Contract::CheckNotification(const std::string& topic, const json& message) const {
  if (!message.is_object() || message.value("jsonrpc", json()) != "2.0" || message.contains("id") ||
      !SameKeys(message, {"jsonrpc", "method", "params"})) {
    return "a notification has \"jsonrpc\" \"2.0\", \"method\" and \"params\" only";
  }
  const json& name = message.value("method", json());
  const auto known = name.is_string() ? parts_->methods.find(name) : parts_->methods.end();
  if (known == parts_->methods.end() || known->second.result) {
    return fmt::format("{} is not documented as a notification", name.dump());
  }
  if (known->second.topic != topic) {
    return fmt::format("{} belongs on \"{}\", not on \"{}\"", name.dump(), known->second.topic,
                       topic);
  }
  return known->second.params.Check(message.value("params", json::object()));
}

std::vector<Contract::Example> Contract::Examples() const {
  std::vector<Example> examples;
  for (const auto& [name, method] : parts_->methods) {
    const json& topics = method.document.at("x-topics");
    for (const json& node : method.document.at("examples")) {
      examples.push_back(GoodExample(node, name, topics));
    }
    for (const json& node : method.document.value("x-error-examples", json::array())) {
      examples.push_back(ErrorExample(node, name, topics));
    }
  }
  for (const json& node : parts_->envelope.at("x-error-examples")) {
    examples.push_back(ErrorExample(node, node.at("method"), node.at("x-topics")));
  }
  return examples;
}

}  // namespace varnel::test
