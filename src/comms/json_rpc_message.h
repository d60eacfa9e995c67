#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace varnel::comms {

using Json = nlohmann::json;

/// Error codes of JSON-RPC 2.0, section 5.1, and the system's own below them.
enum class RpcError : int32_t {
  kInvalidRequest = -32600,
  kMethodNotFound = -32601,
  kInvalidParams = -32602,
  kInternalError = -32603,
  kOperationFailed = -32000,
};

/// One line of JSON; bytes that are not UTF-8 are replaced instead of throwing.
std::string Serialize(const Json& value);

Json MakeRequest(const std::string& method, Json params, Json id);
Json MakeNotification(const std::string& method, Json params);
/// `id` is JSON text and stands in the response as it is, line breaks between its tokens included;
/// the rest is one line. `value` is what a handler returned: an object with a
/// numeric "code" and a string "message" becomes the "error" member, anything else the "result".
std::string MakeResponse(std::string_view id, const Json& value);
Json MakeError(RpcError code, const std::string& message);
/// The error of a method that is not registered, with its name as data.
Json MethodNotFound(const std::string& method);
/// Whether a handler's value stands for a failure.
bool IsErrorObject(const Json& value);

}  // namespace varnel::comms
