#include "comms/json_rpc_message.h"

#include <gtest/gtest.h>

namespace varnel::comms {
namespace {

std::string Nested(int levels) {
  return std::string(static_cast<size_t>(levels), '[') +
         std::string(static_cast<size_t>(levels), ']');
}

TEST(PayloadLimits, ServesExactlyTheDocumentedSizesAndDepths) {
  using Kind = ParseFailure::Kind;
  const auto failure = [](const std::string& payload) -> std::optional<Kind> {
    const auto parsed = ParsePayload(payload);
    const auto* failed = std::get_if<ParseFailure>(&parsed);
    return failed ? std::optional(failed->kind) : std::nullopt;
  };
  const std::string full(kMaxPayloadBytes - 2, 'x');
  EXPECT_EQ(failure('"' + full + '"'), std::nullopt);
  EXPECT_EQ(failure('"' + full + "x\""), Kind::kTooLarge);
  EXPECT_EQ(failure(Nested(64)), std::nullopt);
  EXPECT_EQ(failure(Nested(65)), Kind::kTooDeep);
  EXPECT_EQ(failure(Nested(100'000)), Kind::kTooDeep);
  EXPECT_EQ(failure(R"({"id":)" + Nested(100'000) + "}"), Kind::kTooDeep);
  EXPECT_EQ(failure(R"({"a":"[[[[\"[[[[)" + std::string(1000, '[') + "\"}"), std::nullopt)
      << "brackets in strings";
  EXPECT_EQ(failure("{]"), Kind::kSyntax);
  EXPECT_EQ(failure("\"\xff\""), Kind::kSyntax);
  EXPECT_EQ(failure("1e999999"), Kind::kOther);
}

TEST(Envelope, HandlersValuesBecomeResultsOrErrors) {
  const auto member = [](const char* value) {
    const Json response = MakeResponse(1, Json::parse(value));
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
  const std::string line = LogPayload(
      R"({"id":1,"params":{"access_token":"abcdef","pw":"hunter2","url":"https://h/p?sig=xyz","n":"a\nb"}})",
      1000);
  for (const char* secret : {"abcdef", "hunter2", "xyz"})
    EXPECT_EQ(line.find(secret), std::string::npos) << line;
  EXPECT_NE(line.find("https://h/p"), std::string::npos) << line;
  EXPECT_EQ(LogPayload("not json\nsecond line", 1000).find('\n'), std::string::npos);
  EXPECT_LE(LogPayload(std::string(500, 'x'), 160).size(), 170U);
}

}  // namespace
}  // namespace varnel::comms
