#include "hal_adapter/hal_event.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <latch>
#include <stdexcept>
#include <string>

namespace varnel::hal_adapter {
namespace {

HalEventRecord Event(uint32_t type, const std::string& payload) {
  HalEventRecord event{type, {}};
  std::snprintf(event.payload, sizeof(event.payload), "%s", payload.c_str());
  return event;
}

/// Collects payloads; "blocker" waits for the gate, "last" ends the test's wait.
struct Listener {
  std::latch entered{1};
  std::latch gate{1};
  std::latch finished{1};
  std::vector<std::string> seen;

  static void Receive(const HalEventRecord* event, void* user_data) {
    auto& self = *static_cast<Listener*>(user_data);
    const std::string payload = event->payload;
    self.seen.push_back(payload);
    if (payload == "blocker") {
      self.entered.count_down();
      self.gate.wait();
    }
    if (payload == "last") self.finished.count_down();
  }
};

class HalEventTest : public testing::Test {
 protected:
  void Listen(uint32_t type, HalEventCallback callback, void* user_data) {
    ASSERT_EQ(events_.RegisterCallback(type, callback, user_data), HalStatus::kSuccess);
  }
  HalStatus Post(uint32_t type, const std::string& payload) {
    const HalEventRecord event = Event(type, payload);
    return events_.Post(&event);
  }

  Listener listener_;
  HALEvent events_;  // last: its thread uses the listener
};

TEST_F(HalEventTest, Keeps64RecordsInOrderAndRefusesThe65th) {
  Listen(2, Listener::Receive, &listener_);
  ASSERT_EQ(Post(2, "blocker"), HalStatus::kSuccess);
  listener_.entered.wait();
  std::vector<std::string> expected = {"blocker"};
  for (int i = 0; i < 63; ++i) {
    expected.push_back(std::to_string(i));
    EXPECT_EQ(Post(2, expected.back()), HalStatus::kSuccess);
  }
  expected.push_back("last");
  EXPECT_EQ(Post(2, "last"), HalStatus::kSuccess);
  EXPECT_EQ(Post(2, "one too many"), HalStatus::kHardwareError);
  listener_.gate.count_down();
  listener_.finished.wait();
  EXPECT_EQ(listener_.seen, expected);
}

TEST_F(HalEventTest, CallbacksRunInOrderMayPostAndMayThrow) {
  static HALEvent* events = nullptr;
  static Listener* listener = nullptr;
  events = &events_;
  listener = &listener_;
  Listen(
      1, [](const HalEventRecord*, void*) { throw std::runtime_error("broken"); }, nullptr);
  Listen(
      1, [](const HalEventRecord*, void*) { throw 1; }, nullptr);
  Listen(1, Listener::Receive, &listener_);
  Listen(
      1,
      [](const HalEventRecord*, void*) {
        static_cast<void>(events->RegisterCallback(3, Listener::Receive, listener));
        const HalEventRecord next = Event(3, "last");
        EXPECT_EQ(events->Post(&next), HalStatus::kSuccess);
      },
      nullptr);
  EXPECT_EQ(Post(1, "first"), HalStatus::kSuccess);
  listener_.finished.wait();
  EXPECT_THAT(listener_.seen, testing::ElementsAre("first", "last"));
}

TEST_F(HalEventTest, RefusesNullAndEndsUnterminatedText) {
  EXPECT_EQ(events_.Post(nullptr), HalStatus::kInvalidParameter);
  EXPECT_EQ(events_.RegisterCallback(1, nullptr, nullptr), HalStatus::kInvalidParameter);
  static std::latch done{1};
  Listen(
      4,
      [](const HalEventRecord* event, void*) {
        EXPECT_EQ(std::string(event->payload).size(), 255u);
        done.count_down();
      },
      nullptr);
  HalEventRecord event{4, {}};
  std::fill(std::begin(event.payload), std::end(event.payload), 'x');
  EXPECT_EQ(events_.Post(&event), HalStatus::kSuccess);
  done.wait();
}

TEST_F(HalEventTest, StopDropsWhatIsQueued) {
  Listen(2, Listener::Receive, &listener_);
  ASSERT_EQ(Post(2, "blocker"), HalStatus::kSuccess);
  listener_.entered.wait();
  ASSERT_EQ(Post(2, "dropped"), HalStatus::kSuccess);
  std::jthread stopper([this] { events_.Stop(); });
  // Stop() is through with its first half once posts no longer wake anyone; the gate opens after it
  // has begun.
  while (!events_.Stopping()) std::this_thread::yield();
  listener_.gate.count_down();
  stopper.join();
  EXPECT_THAT(listener_.seen, testing::ElementsAre("blocker"));
}

}  // namespace
}  // namespace varnel::hal_adapter
