#include "comms/json_rpc_message.h"

#include <utility>

namespace varnel::comms {
namespace {

/// Whether brackets outside of strings nest deeper than the limit. The parser itself copes with any
/// depth, but copying and serialising such a value recurses.
bool TooDeep(std::string_view payload) {
  int depth = 0;
  bool in_string = false;
  for (size_t i = 0; i < payload.size(); ++i) {
    const char c = payload[i];
    if (in_string) {
      if (c == '\\') ++i;
      if (c == '"') in_string = false;
    } else if (c == '"') {
      in_string = true;
    } else if (c == '{' || c == '[') {
      if (++depth > kMaxNesting) return true;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return false;
}

}  // namespace

std::variant<Json, ParseFailure> ParsePayload(std::string_view payload) {
  using Kind = ParseFailure::Kind;
  if (payload.size() > kMaxPayloadBytes) return ParseFailure{Kind::kTooLarge, 0, {}};
  if (TooDeep(payload)) return ParseFailure{Kind::kTooDeep, 0, {}};
  try {
    return Json::parse(payload);
  } catch (const Json::parse_error& error) {
    return ParseFailure{Kind::kSyntax, error.byte, error.what()};
  } catch (const Json::exception& error) {
    return ParseFailure{Kind::kOther, 0, error.what()};
  }
}

std::string Serialize(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json MakeRequest(const std::string& method, Json params, Json id) {
  Json request = MakeNotification(method, std::move(params));
  request["id"] = std::move(id);
  return request;
}

Json MakeNotification(const std::string& method, Json params) {
  return Json{{"jsonrpc", "2.0"}, {"method", method}, {"params", std::move(params)}};
}

std::string MakeResponse(std::string_view id, const Json& value) {
  std::string response = R"({"jsonrpc":"2.0","id":)";
  response += id;
  response += IsErrorObject(value) ? R"(,"error":)" : R"(,"result":)";
  response += Serialize(value);
  response += '}';
  return response;
}

Json MakeError(int code, const std::string& message) {
  return Json{{"code", code}, {"message", message}};
}

Json MethodNotFound(const std::string& method) {
  Json error = MakeError(kMethodNotFound, "Method not found");
  error["data"] = "Method not found: " + method;
  return error;
}

bool IsErrorObject(const Json& value) {
  if (!value.is_object()) return false;
  const auto code = value.find("code");
  const auto message = value.find("message");
  return code != value.end() && code->is_number() && message != value.end() && message->is_string();
}

}  // namespace varnel::comms
