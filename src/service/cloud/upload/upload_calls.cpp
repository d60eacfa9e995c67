#include "service/cloud/upload/upload_calls.h"

#include "service/cloud/http/reply_json.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "CLDI";
constexpr int kGood = 200;

bool IsGood(const json& reply) {
  const auto code = reply.find("code");
  return code != reply.end() && code->is_number_integer() && *code == kGood;
}

}  // namespace

std::string TextMember(const json& object, const char* name) {
  if (!object.is_object()) return {};
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::optional<json> AskUploadApi(const UploadApi& api, const RequestOptions& options,
                                 const UploadCall& call, const json& document,
                                 const std::function<bool(const json& data)>& fits) {
  const std::string answer = api.post(call.path, document, options);
  if (answer.empty()) {
    VLOG_ERROR(kTag, "{} failed", call.failed_name);
    return std::nullopt;
  }
  auto reply = ParseReply(answer);
  if (!reply || !reply->is_object()) {
    VLOG_ERROR(kTag, "{} parse error: {}", call.name, "the answer is no JSON object");
    return std::nullopt;
  }
  const auto found = reply->find("data");
  json data = found != reply->end() ? std::move(*found) : json();
  if (IsGood(*reply) && fits(data)) return data;
  VLOG_ERROR(kTag, "{} error: {}", call.name, utils::LogText(TextMember(*reply, "msg")));
  return std::nullopt;
}

std::optional<std::string> CompleteUpload(const UploadApi& api, const RequestOptions& options,
                                          const std::string& call_name, const json& document) {
  const auto data = AskUploadApi(api, options, {call_name, call_name, kUploadCompleted}, document,
                                 [](const json&) { return true; });
  if (!data) return std::nullopt;
  return TextMember(*data, "url");
}

}  // namespace varnel::service
