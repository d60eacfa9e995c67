#include "service/agent/auth/device_api.h"

#include <fmt/format.h>

#include <exception>
#include <utility>

#include "service/agent/auth/signature.h"
#include "service/cloud/http/http_request.h"
#include "service/cloud/http/reply_json.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "MA_AUTH";
constexpr int kSuccess = 200;
constexpr long kClientError = 400;
constexpr long kUnauthorized = 401;
constexpr long kForbidden = 403;
constexpr long kServerError = 500;
constexpr size_t kLoggedText = 160;
constexpr size_t kMaxReplyBytes = size_t{1} << 20U;

/// What is to be said, with its arguments as far as the text has places for them.
template <class... Args>
void Say(const char* text, const Args&... args) {
  VLOG_ERROR(kTag, "{}", fmt::format(fmt::runtime(text), args...));
}

/// The body of an answer that an endpoint may look at.
std::optional<std::string> Sorted(const char* name, const std::string& url, HttpResponse response) {
  const std::string tag = UrlTag(url);
  if (response.status == 0) {
    VLOG_ERROR(kTag, "{} [{}]: network error", name, tag);
  } else if (response.status >= kServerError) {
    VLOG_ERROR(kTag, "{} [{}]: server error HTTP {}, body_len={}", name, tag, response.status,
               response.body.size());
  } else if (response.status >= kClientError) {
    VLOG_ERROR(kTag, "{} [{}]: client error HTTP {}, body_len={}", name, tag, response.status,
               response.body.size());
  } else {
    return std::move(response.body);
  }
  return std::nullopt;
}

/// What stands in "data": a text, or an object with one under this name.
std::optional<std::string> TextIn(const json& data, const char* name) {
  const json* text = &data;
  if (data.is_object()) {
    const auto found = data.find(name);
    if (found == data.end()) return std::nullopt;
    text = &*found;
  }
  if (!text->is_string() || text->get_ref<const std::string&>().empty()) return std::nullopt;
  return text->get<std::string>();
}

}  // namespace

/// A function of the API, and its words for what goes wrong; null: it has none of its own.
struct DeviceApi::Endpoint {
  const char* path;
  const char* invalid_region;
  const char* unexpected_code;
  const char* invalid_code;
  const char* invalid_data;
  const char* error;
  bool needs_code_200 = true;
  bool needs_data = true;
};

struct DeviceApi::Request {
  const Endpoint& endpoint;
  const std::string& region;
  const json& content;  ///< a document, or parameters
  bool is_post;
};

namespace {
// clang-format off
constexpr DeviceApi::Endpoint kUpdate{"/api/device/update",
    "ApiDeviceUpdate: invalid region: {}", "ApiDeviceUpdate: unexpected code: {}",
    nullptr, nullptr, "ApiDeviceUpdate error: {}, resp: {}", true, false};
constexpr DeviceApi::Endpoint kConnectCode{"/api/device/connect/code",
    "ApiDeviceConnectCode: invalid region: {}, r: {}", "ApiDeviceConnectCode: unexpected code: {}",
    "ApiDeviceConnectCode: invalid code: {}", "ApiDeviceConnectCode: invalid data: {}",
    "ApiDeviceConnectCode error: {}"};
constexpr DeviceApi::Endpoint kUnbind{"/api/device/connect/unbind",
    "ApiDeviceConnectUnbind: invalid region: {}, r: {}", "ApiDeviceConnectUnbind: unexpected code: {}",
    "ApiDeviceConnectUnbind: invalid code: {}", "ApiDeviceConnectUnbind: invalid data: {}",
    "ApiDeviceConnectUnbind error: {}"};
constexpr DeviceApi::Endpoint kRelation{"/api/device/connect/relation",
    "ApiDeviceConnectRelation: invalid region: {}, r: {}", "ApiDeviceConnectRelation: unexpected code: {}",
    "ApiDeviceConnectRelation: invalid code: {}", nullptr,
    "ApiDeviceConnectRelation error: {}", true, false};
constexpr DeviceApi::Endpoint kFirmwareLatest{"/api/device/firmware/latest",
    "ApiDeviceFirmwareLatest: invalid region: {}", "ApiDeviceFirmwareLatest: unexpected code: {}",
    "ApiDeviceFirmwareLatest: invalid code: {}", "ApiDeviceFirmwareLatest: unexpected response: {}",
    "ApiDeviceFirmwareLatest error: {}"};
constexpr DeviceApi::Endpoint kAuthorize{"/api/device/download/authorize",
    "UrlAuthorize: invalid region: {}", "UrlAuthorize: unexpected code: {}",
    "UrlAuthorize: invalid code: {}", "UrlAuthorize: unexpected response format: {}",
    "UrlAuthorize error: {}"};
constexpr DeviceApi::Endpoint kPrintGet{"/api/device/print",
    "ApiDevicePrintGet: invalid region: {}", nullptr,
    "ApiDevicePrintGet: unexpected response: {}", "ApiDevicePrintGet: unexpected response: {}",
    "ApiDevicePrintGet error: {}", false};
constexpr DeviceApi::Endpoint kPrint{"/api/device/print",
    "ApiDevicePrint: invalid region: {}", nullptr,
    "ApiDevicePrint: unexpected response: {}", nullptr,
    "ApiDevicePrint error: {}", false, false};
constexpr DeviceApi::Endpoint kConnectAuth{"/api/device/connect/auth",
    "invalid region: {}, r: {}", "DeviceConnect: unexpected code: {}",
    "DeviceConnect: invalid resp: {}", nullptr,
    "DeviceConnect: exception: {}", true, false};
// clang-format on
}  // namespace

DeviceApi::DeviceApi(DeviceAuthentication& authentication, int disconnected_code,
                     std::function<void()> on_disconnected, int32_t timeout_s)
    : authentication_(authentication),
      http_({.timeout_s = timeout_s, .max_body_bytes = kMaxReplyBytes, .post_once = true},
            authentication.Setup().stop, *authentication.Setup().clock),
      disconnected_code_(disconnected_code),
      on_disconnected_(std::move(on_disconnected)) {}

std::optional<std::string> DeviceApi::DeviceApiPost(const Access& access, const Request& request) {
  const std::string url = access.base_url + request.endpoint.path;
  return Judged(access, "DeviceApiPost", url,
                http_.Post(url, request.content, authentication_.DeviceHeaders(access.base_url),
                           access.token));
}

std::optional<std::string> DeviceApi::DeviceApiGet(const Access& access, const Request& request) {
  const std::string url = access.base_url + request.endpoint.path;
  return Judged(access, "DeviceApiGet", url,
                http_.Get(url, request.content, authentication_.DeviceHeaders(access.base_url),
                          access.token));
}

std::optional<std::string> DeviceApi::Judged(const Access& access, const char* name,
                                             const std::string& url, HttpResponse response) {
  if (response.status == kUnauthorized || response.status == kForbidden)
    authentication_.OnRefused(access.token);
  return Sorted(name, url, std::move(response));
}

std::optional<json> DeviceApi::Call(const Request& request) {
  const auto access = authentication_.AccessTo(request.region);
  if (access) return CallWith(*access, request);
  Say(request.endpoint.invalid_region, utils::LogText(request.region),
      utils::LogText(authentication_.Region()));
  return std::nullopt;
}

std::optional<json> DeviceApi::CallWith(const Access& access, const Request& request) {
  try {
    const auto body =
        request.is_post ? DeviceApiPost(access, request) : DeviceApiGet(access, request);
    return body ? ReadReply(access, request.endpoint, *body) : std::nullopt;
  } catch (const std::exception& error) {
    Say(request.endpoint.error, utils::LogText(error.what()), "none");
    return std::nullopt;
  }
}

bool DeviceApi::IsCodeGood(const Access& access, const Endpoint& endpoint, const json& reply,
                           size_t body_size) {
  const auto code = reply.find("code");
  if (code == reply.end() || !code->is_number()) {
    const std::string found = code == reply.end() ? "none" : code->type_name();
    if (endpoint.invalid_code != nullptr) {
      Say(endpoint.invalid_code, found);
    } else {
      Say(endpoint.error, "the code is no number", fmt::format("{} bytes", body_size));
    }
    return false;
  }
  if (*code == disconnected_code_ && *code != kSuccess) {
    authentication_.OnRefused(access.token);
    if (on_disconnected_) on_disconnected_();
  }
  if (!endpoint.needs_code_200 || *code == kSuccess) return true;
  Say(endpoint.unexpected_code, code->dump());
  return false;
}

std::optional<json> DeviceApi::ReadReply(const Access& access, const Endpoint& endpoint,
                                         const std::string& body) {
  auto reply = ParseReply(body);
  if (!reply || !reply->is_object()) {
    Say(endpoint.error, "the reply is no JSON object", fmt::format("{} bytes", body.size()));
    return std::nullopt;
  }
  if (!IsCodeGood(access, endpoint, *reply, body.size())) return std::nullopt;
  const auto data = reply->find("data");
  if (!endpoint.needs_data || (data != reply->end() && !data->is_null())) return reply;
  Say(endpoint.invalid_data, data == reply->end() ? "none" : data->type_name());
  return std::nullopt;
}

bool DeviceApi::ApiDeviceUpdate(const std::string& region, const json& params) {
  VLOG_INFO(kTag, "ApiDeviceUpdate param: {}", utils::LogText(BodyOf(params), kLoggedText));
  if (!params.is_object() || params.empty()) {
    VLOG_ERROR(kTag, "ApiDeviceUpdate: param is empty");
    return false;
  }
  return Call({kUpdate, region, params, true}).has_value();
}

std::optional<std::string> DeviceApi::ApiDeviceConnectCode(const std::string& region,
                                                           const json& document) {
  const auto reply = Call({kConnectCode, region, document, true});
  if (!reply) return std::nullopt;
  auto code = TextIn((*reply)["data"], "code");
  if (!code) Say(kConnectCode.invalid_data, (*reply)["data"].type_name());
  return code;
}

bool DeviceApi::ApiDeviceConnectUnbind(const std::string& region, const std::string& user_id) {
  return Call({kUnbind, region, {{"userId", user_id}}, true}).has_value();
}

std::optional<json> DeviceApi::ApiDeviceConnectRelation(const std::string& region) {
  return Call({kRelation, region, json::object(), false});
}

std::optional<json> DeviceApi::ApiDeviceFirmwareLatest(const std::string& region,
                                                       const json& params) {
  auto reply = Call({kFirmwareLatest, region, params, false});
  return reply ? std::optional(std::move((*reply)["data"])) : std::nullopt;
}

std::optional<std::string> DeviceApi::UrlAuthorize(const std::string& region,
                                                   const std::string& url) {
  const auto reply = Call({kAuthorize, region, {{"url", url}}, true});
  if (!reply) return std::nullopt;
  auto authorized = TextIn((*reply)["data"], "url");
  if (!authorized) Say(kAuthorize.invalid_data, (*reply)["data"].type_name());
  return authorized;
}

std::optional<json> DeviceApi::ApiDevicePrintGet(const std::string& region, const json& params) {
  auto reply = Call({kPrintGet, region, params, false});
  return reply ? std::optional(std::move((*reply)["data"])) : std::nullopt;
}

std::optional<json> DeviceApi::ApiDevicePrint(const std::string& region, const json& task) {
  return Call({kPrint, region, task, true});
}

bool DeviceApi::DeviceConnectAuth(const std::string& region, const std::string& operate,
                                  const std::string& user_id) {
  const auto access = authentication_.AccessTo(region);
  if (!access) {
    Say(kConnectAuth.invalid_region, utils::LogText(region),
        utils::LogText(authentication_.Region()));
    return false;
  }
  if (!access->token || access->token->Text().empty()) {
    VLOG_ERROR(kTag, "DeviceConnectAuth: access_token is empty");
    return false;
  }
  if (authentication_.SerialNumber().empty()) {
    VLOG_ERROR(kTag, "sn is empty, cannot do authentication");
    return false;
  }
  try {
    const std::string nonce = MakeNonce();
    const json body = {{"operate", operate},
                       {"nonce", nonce},
                       {"sign", authentication_.SignFor(operate, nonce)},
                       {"userId", user_id}};
    return CallWith(*access, {kConnectAuth, region, body, true}).has_value();
  } catch (const std::exception& error) {
    Say(kConnectAuth.error, utils::LogText(error.what()));
    return false;
  }
}

}  // namespace varnel::service
