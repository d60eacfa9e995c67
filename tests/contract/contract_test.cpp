#include "support/contract.h"

#include <gmock/gmock.h>

#include <fstream>
#include <functional>

namespace varnel::test {
namespace {

using nlohmann::json;
using testing::HasSubstr;

const char* const kDocument = VARNEL_CONTRACT;

json Document() {
  return json::parse(std::ifstream(kDocument));
}

json Notification() {
  return json::parse(R"({
    "name": "notify_something", "summary": "s", "description": "d", "paramStructure": "by-name",
    "x-topics": {"notification": "camera/notification"},
    "params": [{"name": "done", "description": "d", "required": true, "schema": {"type": "boolean"}}],
    "examples": [{"name": "done", "params": [{"name": "done", "value": true}]}]})");
}

std::string Problem(const std::function<void(json&)>& damage) {
  json document = Document();
  damage(document);
  try {
    const Contract contract(document);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "none";
}

json Call(const std::string& method, const json& params) {
  return {{"jsonrpc", "2.0"}, {"id", "a"}, {"method", method}, {"params", params}};
}

json Result(const json& result) {
  return {{"jsonrpc", "2.0"}, {"id", "a"}, {"result", result}};
}

json Error(int code, const std::string& message) {
  return {{"jsonrpc", "2.0"}, {"id", "a"}, {"error", {{"code", code}, {"message", message}}}};
}

TEST(ContractTest, TheDocumentIsSaneAndItsExamplesKeepIt) {
  const Contract contract = Contract::Load(kDocument);
  EXPECT_GE(contract.Examples().size(), 10u);
  for (const Contract::Example& example : contract.Examples()) {
    EXPECT_FALSE(example.request_topic.empty()) << example.name;
    EXPECT_FALSE(example.response_topic.empty()) << example.name;
  }
}

TEST(ContractTest, DamagedDocumentsAreRefusedWithTheirPlace) {
  struct Case {
    std::function<void(json&)> damage;
    std::string problem;
  };
  const Case cases[] = {
      {[](json& d) { d["methods"][0].erase("x-topics"); }, "\"x-topics\" is missing"},
      {[](json& d) { d["methods"][0].erase("errors"); }, "\"errors\" is missing"},
      {[](json& d) { d["methods"][0]["description"] = ""; }, "description is empty"},
      {[](json& d) { d["methods"][0]["params"][0].erase("description"); },
       "\"description\" is missing"},
      {[](json& d) { d["methods"][1]["name"] = "camera.take_a_photo"; }, "not unique"},
      {[](json& d) { d["components"]["schemas"].erase("Success"); },
       "#/components/schemas/Success"},
      {[](json& d) { d["components"]["schemas"]["Success"] = d["methods"][0]["result"]["schema"]; },
       "circle"},
      {[](json& d) {
         d["methods"][0]["examples"][0]["result"]["value"] = {{"state", "failed"}};
       },
       "/jpeg: "},
      {[](json& d) { d["methods"][0]["examples"][0]["params"][0]["value"] = 1; },
       "wrong parameters"},
      {[](json& d) { d["methods"][0]["x-error-examples"][0]["error"]["code"] = 1; },
       "not documented"},
      {[](json& d) { d["methods"][0]["examples"][1]["name"] = "jpeg"; }, "not unique"},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(Problem(c.damage), HasSubstr(c.problem));
  }
}

TEST(ContractTest, AnswersAreJudgedByTheirMethod) {
  const Contract contract = Contract::Load(kDocument);
  const json photo = Call("camera.take_a_photo", {{"reason", "debug"}});
  const json status = Call("camera.get_status", nullptr);
  const auto check = [&](const json& request, const json& response) {
    return contract.CheckAnswer(request.at("method"), request, response).value_or("fine");
  };
  json idle = {{"state", "success"},
               {"interface_type", "MIPI"},
               {"monitoring", false},
               {"timelapse", false}};
  EXPECT_EQ(check(status, Result(idle)), "fine");
  EXPECT_EQ(check(photo, Error(-32000, "Server busy")), "fine");
  json missing = Error(-32601, "Method not found");
  EXPECT_NE(check(Call("no.such", nullptr), missing), "fine") << "data is missing";
  missing["error"]["data"] = "Method not found: no.such";
  EXPECT_EQ(check(Call("no.such", nullptr), missing), "fine");

  EXPECT_NE(check(photo, Result({{"state", "failed"}})), "fine");
  EXPECT_NE(check(photo, Result({{"state", "success"}, {"file", "x"}})), "fine");
  EXPECT_NE(check(status, Error(-32602, "Invalid params")), "fine");
  EXPECT_NE(check(photo, Error(-32602, "Invalid parameters")), "fine");
  EXPECT_NE(check(photo, Error(-32601, "Method not found")), "fine");
  EXPECT_NE(check(Call("no.such", nullptr), Result(idle)), "fine");
  EXPECT_NE(check(Call("camera.take_a_photo", {{"reason", 1}}), Result({{"state", "success"}})),
            "fine");

  idle["monitoring"] = true;
  EXPECT_NE(check(status, Result(idle)), "fine") << "monitoring needs its domain";
  idle["monitor_domain"] = "wan";
  EXPECT_EQ(check(status, Result(idle)), "fine");
  idle["monitoring"] = false;
  EXPECT_NE(check(status, Result(idle)), "fine") << "the domain is told only while monitoring";
}

TEST(ContractTest, TheEnvelopeOfAnAnswerIsJudged) {
  const Contract contract = Contract::Load(kDocument);
  const json request = Call("camera.take_a_photo", {{"reason", "debug"}});
  const json good = Result({{"state", "success"}});
  EXPECT_FALSE(contract.CheckAnswer("camera.take_a_photo", request, good));
  const json changes[] = {
      json::parse(R"({"id": 1})"), json::parse(R"({"jsonrpc": null})"),
      json::parse(R"({"error": {"code": -32603, "message": "Internal error"}})"),
      json::parse(R"({"result": null})"), json::parse(R"({"extra": 1})")};
  for (const json& change : changes) {
    json bad = good;
    bad.merge_patch(change);
    EXPECT_TRUE(contract.CheckAnswer("camera.take_a_photo", request, bad)) << bad;
  }
  json notification = request;
  notification.erase("id");
  EXPECT_TRUE(contract.CheckAnswer("camera.take_a_photo", notification, good));
  EXPECT_TRUE(contract.CheckAnswer("camera.take_a_photo", "text", good));
}

TEST(ContractTest, NotificationsAreMethodsWithoutResult) {
  json document = Document();
  document["methods"].push_back(Notification());
  const Contract contract(document);
  const json good = {
      {"jsonrpc", "2.0"}, {"method", "notify_something"}, {"params", {{"done", true}}}};
  EXPECT_EQ(contract.CheckNotification("camera/notification", good), std::nullopt);
  EXPECT_TRUE(contract.CheckNotification("system/notification", good));
  for (const char* change :
       {R"({"id": 1})", R"({"method": "camera.get_status"})", R"({"method": "notify_other"})",
        R"({"params": {"done": 1}})", R"({"params": null})"}) {
    json bad = good;
    bad.merge_patch(json::parse(change));
    EXPECT_TRUE(contract.CheckNotification("camera/notification", bad)) << bad;
  }
  document["methods"].back()["examples"][0]["params"][0]["value"] = "yes";
  EXPECT_THROW(Contract{document}, std::runtime_error);
}

}  // namespace
}  // namespace varnel::test
