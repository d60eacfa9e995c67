#include "board/request_ledger.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/eventually.h"
#include "virtual_board/client/daemon_talk.h"
#include "virtual_board/client/rpc_caller.h"

namespace varnel::board {

using nlohmann::json;

namespace {

json Status() {
  return {{"result",
           {{"state", "success"},
            {"interface_type", "MIPI"},
            {"monitoring", false},
            {"timelapse", false}}}};
}

json NotFound(const std::string& method) {
  json answer = Error(-32601, "Method not found");
  answer["error"]["data"] = "Method not found: " + method;
  return answer;
}

/// How often the log names each of `count` numbers behind a text.
std::vector<int> Occurrences(const std::string& log, const std::string& text, size_t count) {
  std::vector<int> found(count);
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
    const size_t id = std::strtoull(log.c_str() + at + text.size(), nullptr, 10);
    if (id < count) ++found[id];
  }
  return found;
}

constexpr const char* kReceived = "Receive normal request: id is ";
constexpr const char* kReason = "reason is load ";
constexpr const char* kUnknown = "Method not found: system.unknown_";

}  // namespace

size_t RequestLedger::Send(MqttLink& link) {
  const size_t id = entries_.size();
  const std::string number = std::to_string(id);
  if (id % 16 == 3) {
    return Send(link, {"camera", "camera.take_a_photo", {{"reason", "debug"}}, Success(), ""});
  }
  switch (id % 4) {
    case 0:
      return Send(link, {"camera",
                         "camera.take_a_photo",
                         {{"reason", "load " + number}},
                         Error(-32600, "Invalid Request"),
                         kReason});
    case 1:
      return Probe(link, "system");
    default:
      return Probe(link, "camera");
  }
}

size_t RequestLedger::Probe(MqttLink& link, const std::string& topic) {
  if (topic == "camera") return Send(link, {topic, "camera.get_status", nullptr, Status(), ""});
  const std::string method = "system.unknown_" + std::to_string(entries_.size());
  return Send(link, {topic, method, nullptr, NotFound(method), kUnknown});
}

bool RequestLedger::AwaitService(MqttLink& link, std::chrono::milliseconds limit) {
  const auto first = static_cast<std::ptrdiff_t>(entries_.size());
  const auto is_there = [&](const std::string& topic) {
    return std::any_of(entries_.begin() + first, entries_.end(), [&](const Entry& entry) {
      return entry.topic == topic && entry.answers > 0;
    });
  };
  return test::Eventually(
      [&] {
        for (const char* topic : kTopics) Probe(link, topic);
        while (const auto message = link.Receive(std::chrono::milliseconds(20))) Take(*message);
        return std::all_of(std::begin(kTopics), std::end(kTopics), is_there);
      },
      limit);
}

json RequestLedger::Request(size_t id, const Entry& entry) {
  json request = {{"jsonrpc", "2.0"}, {"id", id}, {"method", entry.method}};
  if (!entry.params.is_null()) request["params"] = entry.params;
  return request;
}

size_t RequestLedger::Send(MqttLink& link, Entry entry) {
  const size_t id = entries_.size();
  const std::string text = Request(id, entry).dump();
  const std::string topic = entry.topic + "/request";
  entries_.push_back(std::move(entry));
  link.Publish(topic, text);
  return id;
}

void RequestLedger::Take(const Message& message) {
  const json answer = json::parse(message.payload);
  const size_t id = answer.at("id");
  ASSERT_LT(id, entries_.size()) << "an answer to nothing";
  Entry& entry = entries_[id];
  ++entry.answers;
  EXPECT_EQ(entry.answers, 1) << "request " << id << " was answered again";
  EXPECT_EQ(message.topic, entry.topic + "/response");
  json expected = entry.answer;
  expected.update({{"jsonrpc", "2.0"}, {"id", id}});
  EXPECT_EQ(answer, expected);
  const auto fault = DaemonContract().CheckAnswer(entry.method, Request(id, entry), answer);
  EXPECT_FALSE(fault) << *fault;
}

size_t RequestLedger::Open(size_t from) const {
  const auto unanswered = [](const Entry& entry) { return entry.answers == 0; };
  return static_cast<size_t>(std::count_if(entries_.begin() + static_cast<std::ptrdiff_t>(from),
                                           entries_.end(), unanswered));
}

void RequestLedger::CheckAgainst(const std::string& log) const {
  const auto received = Occurrences(log, kReceived, entries_.size());
  const auto reasons = Occurrences(log, kReason, entries_.size());
  const auto unknown = Occurrences(log, kUnknown, entries_.size());
  for (size_t id = 0; id < entries_.size(); ++id) {
    const Entry& entry = entries_[id];
    EXPECT_LE(received[id], 1) << "request " << id << " was received again";
    EXPECT_LE(entry.answers, received[id]) << "request " << id;
    if (entry.trace == kReason) {
      EXPECT_EQ(reasons[id], received[id]) << "runs of request " << id;
    }
    if (entry.trace == kUnknown) {
      EXPECT_EQ(unknown[id], received[id]) << "runs of request " << id;
    }
  }
}

}  // namespace varnel::board
