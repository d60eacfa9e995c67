#include "comms/json_rpc_envelope.h"

#include <gtest/gtest.h>

#include "comms/json_rpc_message.h"
#include "comms/log_payload.h"

namespace varnel::comms {
namespace {

std::string Nested(int levels) {
  return std::string(static_cast<size_t>(levels), '[') +
         std::string(static_cast<size_t>(levels), ']');
}

TEST(PayloadLimits, ServesExactlyTheDocumentedSizesAndDepths) {
  using Kind = ParseFailure::Kind;
  const auto failure = [](const std::string& payload) -> std::optional<Kind> {
    const auto read = JsonRpcEnvelope::Read(payload);
    const auto* failed = std::get_if<ParseFailure>(&read);
    return failed ? std::optional(failed->kind) : std::nullopt;
  };
  const std::string full(kMaxPayloadBytes - 7, 'x');
  EXPECT_EQ(failure(R"({"a":")" + full.substr(1) + "\"}"), std::nullopt);
  EXPECT_EQ(failure(R"({"a":")" + full + "\"}"), Kind::kTooLarge);
  EXPECT_EQ(failure(R"({"id":)" + Nested(63) + "}"), std::nullopt);
  EXPECT_EQ(failure(R"({"id":)" + Nested(64) + "}"), Kind::kTooDeep);
  EXPECT_EQ(failure(Nested(100'000)), Kind::kTooDeep);
  EXPECT_EQ(failure(R"({"a":"[[[[\"[[[[)" + std::string(1000, '[') + "\"}"), std::nullopt)
      << "brackets in strings";
  EXPECT_EQ(failure("{]"), Kind::kSyntax);
  EXPECT_EQ(failure("\"\xff\""), Kind::kSyntax);
  EXPECT_EQ(failure("[1]"), Kind::kNotAnObject);
  EXPECT_EQ(failure("1e999999"), Kind::kOther);
}

TEST(Envelope, HandlersValuesBecomeResultsOrErrors) {
  const auto member = [](const char* value) {
    const Json response = Json::parse(MakeResponse("1", Json::parse(value)));
    return response.contains("error") ? "error" : "result";
  };
  EXPECT_STREQ(member(R"({"code":-32602,"message":"m"})"), "error");
  EXPECT_STREQ(member(R"({"code":1.5,"message":"m","data":[]})"), "error");
  EXPECT_STREQ(member(R"({"code":"x","message":"m"})"), "result");
  EXPECT_STREQ(member(R"({"code":1,"message":2})"), "result");
  EXPECT_STREQ(member(R"({"code":1})"), "result");
  EXPECT_STREQ(member("null"), "result");
  EXPECT_EQ(Serialize(Json("a\xff")), "\"a\xEF\xBF\xBD\"")
      << "never throws for bytes that are no text";
}

TEST(LoggedPayloads, HideSecretsAndStayOnOneLine) {
  const struct {
    const char* payload;
    const char* line;
  } cases[] = {
      {R"({"id":1, "access_token":"hunter\"2", "n":"a\nb"})",
       R"({"id":1, "access_token":"***", "n":"a\nb"})"},
      {R"({"url":"https://h/p?sig=hunter2"})", R"({"url":"https://h/p?***"})"},
      {R"(["password : ", {"Password" : 12345678 , "x":[1]}])",
       R"(["password : ", {"Password" : "***", "x":[1]}])"},
      {R"({"tokens":["hunter2",{"a":"]"}],"secret":{"v":"hunter2"},"b":2})",
       R"({"tokens":"***","secret":"***","b":2})"},
      {R"({"code":-32000,"message":"m"},{"code":"hunter2"})",
       R"({"code":-32000,"message":"m"},{"code":"***"})"},
      {R"({"deviceKey":"","accessKey":null})", R"_({"deviceKey":"(none)","accessKey":"***"})_"},
      // cut short or no JSON at all
      {R"({"apikey":"hunter2)", R"({"apikey":"***")"},
      {R"({"pin":)", R"_({"pin":"(none)")_"},
      {R"("token":,}"https://u:hunter2@h)", R"_("token":"(none)",}"https://***@h)_"},
  };
  for (const auto& test : cases) EXPECT_EQ(LogPayload(test.payload, 1000), test.line);
  const std::string late = R"({"a":")" + std::string(100, 'x') + R"(","token":"hunter2"})";
  for (size_t bytes = 1; bytes < 120; ++bytes)
    EXPECT_EQ(LogPayload(late, bytes).find("hunter2"), std::string::npos);
  EXPECT_EQ(LogPayload("not json\nsecond line", 1000).find('\n'), std::string::npos);
  EXPECT_LE(LogPayload(std::string(500, 'x'), 160).size(), 170U);
}

}  // namespace
}  // namespace varnel::comms
