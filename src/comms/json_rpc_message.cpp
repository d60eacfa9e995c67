#include "comms/json_rpc_message.h"

#include <utility>

namespace varnel::comms {
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

Json MakeError(RpcError code, const std::string& message) {
  return Json{{"code", static_cast<int32_t>(code)}, {"message", message}};
}

Json MethodNotFound(const std::string& method) {
  Json error = MakeError(RpcError::kMethodNotFound, "Method not found");
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
