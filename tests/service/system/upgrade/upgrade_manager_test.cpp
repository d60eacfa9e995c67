#include "service/system/upgrade/upgrade_manager.h"

#include <gtest/gtest.h>

#include <future>
#include <latch>
#include <thread>

#include "service/system/upgrade/firmware_world.h"
#include "service/system/upgrade/printer_state.h"
#include "support/fake_mqtt_client.h"

namespace varnel::service {
namespace {

using nlohmann::json;
using Peer = test::ScriptedServer::Peer;
using namespace std::chrono_literals;

class UpgradeManagerTest : public testing::Test, protected FirmwareWorld {
 protected:
  UpgradeManagerTest() {
    Describe([this](const std::string&, const Peer& peer) { return peer.Answer(Text()); });
    setup_.comms = &comms_;
    setup_.storage = dir.Path();
    setup_.local_fullversion = [this] { return has_it_ ? "2.0.0" : "1.0.0"; };
    setup_.is_connected = [] { return true; };
    setup_.ask_record = [this] {
      return json{{"note", Url("/description")}, {"url", Url("/package")}};
    };
    setup_.take_turn = [] { return std::make_shared<int>(); };
    setup_.clock = &clock;
  }
  [[nodiscard]] std::string Text() const {
    return json{{"version", "2"},
                {"fullversion", "2.0.0"},
                {"size", package.size()},
                {"md5", description.md5},
                {"release_notes", ""}}
        .dump();
  }

  std::shared_ptr<test::FakeMqttClient> mqtt_ = std::make_shared<test::FakeMqttClient>();
  comms::CommsManager comms_{[this](const std::string&, comms::Qos) { return mqtt_; }};
  UpgradeSetup setup_;
  std::atomic<bool> has_it_ = false;
};

TEST_F(UpgradeManagerTest, WhoComesDuringALookSharesIt) {
  std::latch asked(1);
  std::latch turned(1);
  std::latch go(1);
  std::atomic<bool> first = true;
  Describe([&](const std::string&, const Peer& peer) {
    if (first.exchange(false)) asked.count_down();
    go.wait();
    return peer.Answer(Text());
  });
  setup_.take_turn = [&] {
    turned.count_down();
    return std::make_shared<int>();
  };
  UpgradeManager manager(setup_);
  manager.StartCheckRemoteFirmware();
  asked.wait();
  auto late =
      std::async(std::launch::async, [&] { return manager.ReqCallbackCheckRemote(nullptr); });
  turned.wait();
  go.count_down();
  EXPECT_EQ(late.get()["has_new"], true);
}

TEST_F(UpgradeManagerTest, WhatIsOfNoUseGoesFirst) {
  UpgradeManager manager(setup_);
  EXPECT_EQ(manager.ReqCallbackCheckRemote(nullptr)["has_new"], true);
  (void)dir.Write(".tmp_upgrade/2.0.0.bin", std::string(package.size(), 'x'));
  Spoil({[this](PackageAnswer&) {
    EXPECT_FALSE(std::filesystem::exists(store.Firmware("2.0.0"))) << "needs room for two";
    EXPECT_TRUE(std::filesystem::exists(store.Part("2.0.0")));
  }});
  EXPECT_EQ(manager.ReqCallbackDownloadFirmware({{"fullversion", "2.0.0"}})["state"], "success");
  EXPECT_TRUE(test::Eventually([&] {
    return manager.ReqCallbackCheckRemote(nullptr)["has_downloaded"] == true;
  })) << log.Text();
  EXPECT_TRUE(Stored() == package);
  (void)dir.Write(".tmp_upgrade/2.0.0.bin.part", "of an earlier run");
  has_it_ = true;
  EXPECT_EQ(manager.ReqCallbackCheckRemote(nullptr)["has_new"], false);
  EXPECT_EQ(Names().size(), 2U) << "the package and its description";
}

TEST_F(UpgradeManagerTest, ADescriptionThatDripsIsGivenUp) {
  Describe([this](const std::string&, const Peer& peer) {
    (void)peer.Send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n");
    for (int i = 0; i < 100 && peer.Send(" "); ++i) {
      // sleeps: what was sent has to come one by one
      std::this_thread::sleep_for(20ms);
      clock.Advance(4s);
    }
    return false;
  });
  EXPECT_EQ(UpgradeManager(setup_).ReqCallbackCheckRemote(nullptr)["state"], "failed");
  EXPECT_LT(clock.Elapsed(), 90s);
}

TEST_F(UpgradeManagerTest, NothingIsFlashedWhenNobodyCouldBeAskedWhetherItPrints) {
  ASSERT_EQ(comms_.InitLocal(), comms::CommsStatus::kOk);
  mqtt_->on_send = [&] {
    const json id = json::parse(mqtt_->sent.Items().back().payload)["id"];
    const json result = {{"status", {{"print_stats", {{"state", "paused"}}}}}};
    mqtt_->Arrive("moonraker/response", json{{"id", id}, {"result", result}}.dump());
  };
  const auto refusal = [&](bool connects) {
    const char* why = PrinterRefusal(comms_, clock, [&](std::chrono::milliseconds time) {
      clock.Advance(time);
      if (connects) (void)comms_.ConnectLocal("h", "1", "i");
      return true;
    });
    return std::string(why == nullptr ? "" : why);
  };
  EXPECT_EQ(refusal(false), "printer state is unknown");
  EXPECT_EQ(refusal(true), "printer is printing") << "the link came meanwhile";
}

TEST(UpgradeRecordTest, TheVersionDecidesWhatTheScriptCannotKnow) {
  const std::string longest(32, 'v');
  const struct {
    UpgradeRecord record;
    std::string now;
    const char* outcome;
  } cases[] = {{{"p", "1", "2", ""}, "2", "success"},
               {{"p", "1", longest + "x", ""}, longest, "success"},
               {{"p", "1", longest, ""}, longest.substr(1), ""},
               {{"p", "1", "2", "success"}, "1", ""},
               {{"p", "1", "", "success"}, "1", "success"},
               {{"p", "", "", ""}, "2", ""}};
  for (const auto& one : cases) EXPECT_EQ(one.record.OutcomeAt(one.now), one.outcome) << one.now;
}

}  // namespace
}  // namespace varnel::service
