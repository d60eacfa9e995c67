#include "comms/json_rpc_message.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "utils/log_text.h"

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

bool NamesSecret(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  constexpr std::array kWords{"token",   "password",   "passwd", "secret",
                              "private", "credential", "auth",   "signature"};
  constexpr std::array kNames{"pw", "key", "salt", "code", "sign"};
  const auto contains = [&](const char* word) { return name.find(word) != std::string::npos; };
  return std::any_of(kWords.begin(), kWords.end(), contains) || name.ends_with("_key") ||
         std::find(kNames.begin(), kNames.end(), name) != kNames.end();
}

void MaskSecrets(Json& value) {
  if (value.is_array()) {
    for (Json& item : value) MaskSecrets(item);
  } else if (value.is_object()) {
    for (auto& [name, item] : value.items()) {
      // A numeric "code" is an error code.
      if (item.is_string() && NamesSecret(name)) {
        item = utils::MaskSecret(item.get_ref<const std::string&>());
      } else {
        MaskSecrets(item);
      }
    }
  } else if (value.is_string() &&
             value.get_ref<const std::string&>().find("://") != std::string::npos) {
    value = utils::MaskUrl(value.get_ref<const std::string&>());
  }
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

Json MakeResponse(Json id, Json value) {
  const char* member = IsErrorObject(value) ? "error" : "result";
  Json response = Json::object();
  response["jsonrpc"] = "2.0";
  response["id"] = std::move(id);
  response[member] = std::move(value);
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

std::string LogJson(const Json& value, size_t max_bytes) {
  Json masked = value;
  MaskSecrets(masked);
  return utils::LogText(Serialize(masked), max_bytes);
}

std::string LogPayload(std::string_view payload, size_t max_bytes) {
  const auto parsed = ParsePayload(payload);
  if (const Json* value = std::get_if<Json>(&parsed)) return LogJson(*value, max_bytes);
  return utils::LogText(payload, max_bytes);
}

}  // namespace varnel::comms
