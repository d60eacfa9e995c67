// What judges the daemon's messages in other tests sees.
#include "virtual_board/client/contract.h"

#include <gtest/gtest.h>

#include <fstream>

namespace varnel::board {
namespace {

using nlohmann::json;

TEST(ContractTest, WhatIsNotPromisedIsSeen) {
  json document = json::parse(std::ifstream(VARNEL_CONTRACT));
  document["methods"].push_back(json::parse(R"({
      "name": "notify_x", "x-topics": {"notification": "camera/notification"},
      "params": [{"name": "done", "required": true, "schema": {"type": "boolean"}}]})"));
  const Contract contract(document);
  const auto fits = [&](const char* change) {
    const json request = {{"id", "a"}, {"params", {{"reason", "debug"}}}};
    json answer = json::parse(R"({"jsonrpc": "2.0", "id": "a", "result": {"state": "success"}})");
    answer.merge_patch(json::parse(change));
    return !contract.CheckAnswer("camera.take_a_photo", request, answer);
  };
  EXPECT_TRUE(fits("{}"));
  EXPECT_TRUE(fits(R"({"result": null, "error": {"code": -32000, "message": "Server busy"}})"));
  for (const char* change :
       {R"({"id": 1})", R"({"jsonrpc": null})", R"({"result": null})", R"({"extra": 1})",
        R"({"error": {"code": -32000, "message": "Server busy"}})", R"({"result": {"file": "x"}})",
        R"({"result": {"state": "failed"}})",
        R"({"result": null, "error": {"code": -32602, "message": "Invalid parameters"}})"}) {
    EXPECT_FALSE(fits(change)) << change;
  }
  const auto notifies = [&](const char* change) {
    json message =
        json::parse(R"({"jsonrpc": "2.0", "method": "notify_x", "params": {"done": true}})");
    message.merge_patch(json::parse(change));
    return !contract.CheckNotification("camera/notification", message);
  };
  EXPECT_TRUE(notifies("{}"));
  for (const char* change : {R"({"id": 1})", R"({"method": "camera.get_status"})",
                             R"({"params": {"done": 1}})", R"({"params": null})"}) {
    EXPECT_FALSE(notifies(change)) << change;
  }
}

}  // namespace
}  // namespace varnel::board
