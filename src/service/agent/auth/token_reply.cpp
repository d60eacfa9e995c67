#include "service/agent/auth/token_reply.h"

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>

#include "service/cloud/http/reply_json.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "MA_AUTH";
constexpr std::string_view kBoundary = "----WebKitFormBoundary7MA4YWxkTrZu0gW";
constexpr int kSuccess = 200;
constexpr int kRegionLockedCode = 602013;

TokenResult Fail(const char* why) {
  VLOG_ERROR(kTag, "{}", why);
  return TokenResult::kFailed;
}

/// It will stand in a header and in a form.
bool IsToken(std::string_view text) {
  constexpr size_t kMaxBytes = 8192;
  return text.size() <= kMaxBytes && std::all_of(text.begin(), text.end(), [](char c) {
           return static_cast<unsigned char>(c) > ' ' && static_cast<unsigned char>(c) < 0x7f;
         });
}

/// Takes the member's text and leaves none of it in the document. Null when it is no token.
utils::SharedSecret TakeSecret(json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_string()) return nullptr;
  auto& text = found->get_ref<std::string&>();
  auto secret = IsToken(text) ? std::make_shared<const utils::SecretString>(text) : nullptr;
  utils::Wipe(text);
  return secret;
}

bool IsEmpty(const utils::SharedSecret& secret) {
  return !secret || secret->Text().empty();
}

/// Whether the code of a reply allows to go on.
TokenResult JudgeCode(const json& reply) {
  const auto code = reply.find("code");
  if (code == reply.end() || !code->is_number())
    return Fail("no 'code' field or not a number in OAuth2 content!");
  if (*code == kRegionLockedCode) return TokenResult::kRegionLocked;
  if (*code == kSuccess) return TokenResult::kOk;
  VLOG_ERROR(kTag, "invalid code in OAuth2 content: {}", code->dump());
  return TokenResult::kFailed;
}

}  // namespace

std::string FormBody(const std::vector<FormField>& fields) {
  std::string body;
  for (const FormField& field : fields) {
    body.append("--").append(kBoundary).append("\r\nContent-Disposition: form-data; name=\"");
    body.append(field.name).append("\"\r\n\r\n").append(field.value).append("\r\n");
  }
  return body.append("--").append(kBoundary).append("--\r\n");
}

TokenResult ReadGrantReply(const std::string& text, TokenPair& tokens) {
  auto read = ParseReply(text);
  if (!read || !read->is_object()) return Fail("invalid OAuth2 content!");
  json& reply = *read;
  if (const TokenResult code = JudgeCode(reply); code != TokenResult::kOk) return code;
  const auto data = reply.find("data");
  if (data == reply.end()) return Fail("no 'data' field in OAuth2 content!");
  if (data->empty()) return Fail("empty data in OAuth2 content!");
  TokenPair pair;
  if (data->is_object()) pair.access = TakeSecret(*data, "access_token");
  if (!pair.access) return Fail("invalid access_token!");
  pair.refresh = TakeSecret(*data, "refresh_token");
  if (!pair.refresh) return Fail("invalid refresh_token!");
  if (IsEmpty(pair.refresh)) return Fail("refresh_token is empty!");
  tokens = std::move(pair);
  return TokenResult::kOk;
}

TokenResult ReadRefreshReply(const std::string& text, TokenPair& tokens) {
  auto read = ParseReply(text);
  if (!read || !read->is_object()) {
    VLOG_ERROR(kTag, "Failed to parse access token: {}", "the reply is no JSON object");
    return TokenResult::kFailed;
  }
  json& reply = *read;
  const auto data = reply.find("data");
  if (data == reply.end() || !data->is_object())
    return Fail("No 'data' field in AccessToken response");
  TokenPair pair;
  pair.access = TakeSecret(*data, "access_token");
  if (!pair.access) return Fail("No 'access_token' field in AccessToken data");
  pair.refresh = TakeSecret(*data, "refresh_token");
  if (!pair.refresh) return Fail("No 'refresh_token' field in AccessToken data");
  if (IsEmpty(pair.access) || IsEmpty(pair.refresh))
    return Fail("Empty access token or refresh token");
  VLOG_INFO(kTag, "AccessToken: {}, RefreshToken: {}", utils::MaskSecret(pair.access->Text()),
            utils::MaskSecret(pair.refresh->Text()));
  tokens = std::move(pair);
  return TokenResult::kOk;
}

}  // namespace varnel::service
