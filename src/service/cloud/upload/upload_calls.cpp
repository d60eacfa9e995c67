#include "service/cloud/upload/upload_calls.h"

#include <algorithm>
#include <string_view>

#include "service/cloud/http/reply_json.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "CLDI";
constexpr int kGood = 200;

/// Creating lists an address for each part, and completing puts them together.
constexpr int32_t kTimeoutS = 60;
constexpr int32_t kCompletionTimeoutS = 120;
/// No word is so long; a token is, and so is what an address is signed with.
constexpr size_t kLongestWord = 24;

/// What the server quotes may be secret.
std::string WithoutTokens(std::string text) {
  constexpr std::string_view kInTokens =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+/=_-.%";
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find_first_not_of(kInTokens, begin), text.size());
    if (end - begin > kLongestWord) text.replace(begin, end - begin, end - begin, '*');
    begin = end + 1;
  }
  return text;
}

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
  RequestOptions limited = options;
  const bool completes = std::string_view(call.path) == kUploadCompleted;
  limited.timeout_s = completes ? kCompletionTimeoutS : kTimeoutS;
  const std::string answer = api.post(call.path, document, limited);
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
  VLOG_ERROR(kTag, "{} error: {}", call.name,
             utils::LogText(WithoutTokens(TextMember(*reply, "msg"))));
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
