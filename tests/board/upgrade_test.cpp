// Firmware from the cloud, or from a file, to the script that installs it.
#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <thread>

#include "board/cloud_board.h"
#include "support/eventually.h"
#include "support/temp_dir.h"
#include "virtual_board/common/files.h"

namespace varnel::board {
namespace {

using nlohmann::json;
using testing::IsEmpty;
using namespace std::chrono_literals;

constexpr const char* kTopic = "system/request";
constexpr const char* kFirmware = "/packages/firmware.bin";
constexpr const char* kStore = "/userdata/.tmp_upgrade/";

json Failed(const std::string& message) {
  return {{"result", {{"state", "failed"}, {"message", message}}}};
}

/// How many times the daemon is killed while it fetches; VARNEL_KILLS.
int Kills() {
  const char* wish = std::getenv("VARNEL_KILLS");
  return wish == nullptr ? 5 : std::atoi(wish);
}

std::string Sha256Of(const std::string& bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned size = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &size, EVP_sha256(), nullptr);
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    text += kDigits[digest.at(i) >> 4U];
    text += kDigits[digest.at(i) & 15U];
  }
  return text;
}

class UpgradeTest : public testing::Test {
 protected:
  UpgradeTest() { board_.board.OrderUpgrade(""); }
  ~UpgradeTest() override { TheCloud().SetFaults(""); }

  void Publish(size_t size, const std::string& fullversion) {
    std::mt19937 random(static_cast<unsigned>(size));
    package_.assign(size, '\0');
    for (char& byte : package_) byte = static_cast<char>(random());
    std::ofstream(files_ / "package", std::ios::binary) << package_;
    TheCloud().Publish(files_ / "package", {{"version", "9"}, {"fullversion", fullversion}});
  }
  json Call(const std::string& method, const json& params = nullptr) {
    return board_.rpc.Call("system." + method, params, kTopic);
  }
  json Check() { return Call("upgrade_check_remote").at("result"); }
  /// Downloads what is published, and waits for its end: the outcome.
  json Download(const std::string& fullversion) {
    const size_t before = Outcomes().size();
    // The thread that told the outcome before may not have ended yet.
    EXPECT_TRUE(test::Eventually([&] {
      return Call("upgrade_download_firmware", {{"fullversion", fullversion}}) == Success();
    }));
    return AwaitOutcome(before);
  }
  json Upgrade() { return Call("upgrade", {{"type", "remote"}}); }
  /// Notifications with a "reason".
  [[nodiscard]] std::vector<json> Outcomes() const {
    std::vector<json> outcomes;
    for (const auto& told : board_.rpc.Notifications("notify_system_upgrade"))
      if (told.params.contains("reason")) outcomes.push_back(told.params);
    return outcomes;
  }
  [[nodiscard]] json AwaitOutcome(size_t before) const {
    EXPECT_TRUE(test::Eventually([&] { return Outcomes().size() > before; }, 120s));
    return Outcomes().size() > before ? Outcomes().at(before) : json();
  }
  [[nodiscard]] std::vector<json> Events(const std::string& event) const {
    std::vector<json> events;
    for (const json& entry : board_.board.UpgradeJournal())
      if (entry.at("event") == event) events.push_back(entry);
    return events;
  }
  void ExpectGrowingPercents() const {
    std::vector<int> percents;
    for (const auto& told : board_.rpc.Notifications("notify_system_upgrade"))
      if (told.params.at("state") == "downloading") percents.push_back(told.params.at("percent"));
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
    EXPECT_EQ(percents.empty() ? 0 : percents.back(), 100);
  }
  [[nodiscard]] std::string Names() const {
    return board_.board.Shell(std::string("ls ") + kStore).out;
  }

  /// Of no upgrade an outcome will be told.
  [[nodiscard]] bool IsForgotten() const {
    return Names().find("upgrade.json") == std::string::npos;
  }

  test::TempDir files_;
  std::string package_;
  CloudBoard board_;
};

TEST_F(UpgradeTest, FromTheCloudToTheScript) {
  Publish(3'000'000, "9.0.1");
  EXPECT_EQ(Call("upgrade_download_firmware", {{"fullversion", "9.0.1"}}),
            Failed("check new version failed"));
  EXPECT_EQ(Check().at("state"), "failed");
  board_.Join();
  const auto& rpc = board_.rpc;
  EXPECT_TRUE(test::Eventually(
      [&] { return rpc.Notifications("notify_system_check_remote").size() == 1; }, 20s));
  const json told = rpc.Notifications("notify_system_check_remote").front().params;
  EXPECT_EQ(told.at("has_new"), true) << told;
  EXPECT_EQ(told.at("has_downloaded"), false);
  EXPECT_EQ(Upgrade(), Failed("firmware has not been downloaded"));
  EXPECT_EQ(Call("upgrade_download_firmware", {{"fullversion", "9.0.2"}}),
            Failed("unsupported fullversion"));
  EXPECT_EQ(Download("9.0.1"), (json{{"state", "success"}, {"reason", "success"}}));
  ExpectGrowingPercents();
  EXPECT_EQ(Names(), "9.0.1.bin\nremote_firmware_desc.json\n");
  EXPECT_EQ(Call("upgrade_download_firmware", {{"fullversion", "9.0.1"}}),
            Failed("firmware is already downloaded"));
  board_.Restart();
  EXPECT_TRUE(board_.Await("connected"));
  const json offer = board_.client.Call("system.upgrade_check_remote", nullptr).at("result");
  EXPECT_EQ(offer.at("has_downloaded"), true) << offer;
  EXPECT_EQ(offer.at("size"), package_.size());

  board_.board.OrderUpgrade("install 9.0.1\n");
  EXPECT_EQ(board_.client.Call("system.upgrade", {{"type", "remote"}}), Success());
  EXPECT_EQ(AwaitOutcome(1), (json{{"state", "success"}, {"reason", "upgrade"}}));
  ASSERT_EQ(Events("read").size(), 1U);
  EXPECT_EQ(Events("read")[0].at("sha256"), Sha256Of(package_));
  EXPECT_EQ(Events("start")[0].at("arguments"),
            (json{"upgrade", "all", std::string(kStore) + "9.0.1.bin"}));
  EXPECT_TRUE(board_.Await("connected"));
  const json same = Check();
  EXPECT_EQ(same.at("has_new"), false) << same;
  EXPECT_TRUE(test::Eventually([&] { return IsForgotten(); }));
  EXPECT_EQ(Outcomes().size(), 2U) << "told once";

  board_.ExpectNoSecretLeft();
}

TEST_F(UpgradeTest, WhatTheServersSayHarmsNothing) {
  Publish(300'000, "9.4.0");
  board_.Join();
  EXPECT_TRUE(test::Eventually([&] { return Check().at("has_new") == true; }, 20s));
  EXPECT_EQ(Download("9.4.0").at("state"), "success");
  const std::string kept = Names();
  const auto fault = [&](const std::string& text) { TheCloud().SetFaults(text + '\n'); };
  for (const char* told :
       {R"({"md5": null})", R"({"fullversion": "../../x"})", R"({"size": 9223372036854775808})"}) {
    (void)TheCloud().Publish(files_ / "package", json::parse(told));
    EXPECT_EQ(Check().at("state"), "failed") << told;
    EXPECT_EQ(Names(), kept) << told;
  }
  Publish(300'000, "9.4.0");
  for (const auto& text :
       {std::string().append(10'000'000, ' ') + "{}", std::string(500'000, '['),
        R"({"release_notes": ")" + std::string().append(10'000'000, 'x') + R"("})"}) {
    std::ofstream(TheCloud().Directory() / "told") << text;
    fault("file /packages/description.json told");
    EXPECT_EQ(Check().at("state"), "failed") << text.substr(0, 50);
    EXPECT_EQ(Names(), kept);
  }
  fault("");
  EXPECT_EQ(Check().at("has_downloaded"), true);

  Publish(400'000, "9.4.1");
  const std::string firmware = kFirmware;
  for (const auto& [line, reason] : std::vector<std::pair<std::string, const char*>>{
           {"chunked " + firmware, "firmware check failed"},
           {"body " + firmware + " <html>sign in</html>", "firmware check failed"},
           {"echo " + firmware + " 500", "download firmware failed"},
           {"redirect " + firmware + " file:///etc/passwd", "download firmware failed"}}) {
    fault(line);
    EXPECT_EQ(Check().at("has_downloaded"), false);
    const json outcome = Download("9.4.1");
    EXPECT_EQ(outcome.at("reason"), reason) << line;
    EXPECT_EQ(Names().find("9.4.1.bin\n"), std::string::npos) << line;
  }
  fault("");
  EXPECT_EQ(Download("9.4.1").at("state"), "success");
  board_.ExpectNoSecretLeft();
}

TEST_F(UpgradeTest, FromAFileAndOnceForEachRequest) {
  (void)board_.board.Shell(
      "head -c 100000 /dev/urandom > /userdata/p.bin; : > /userdata/empty.bin");
  const auto local = [&](const std::string& path) {
    return Call("upgrade", {{"type", "local"}, {"filepath", path}});
  };
  for (const char* path : {"/userdata/none.bin", "/userdata/empty.bin", "p.bin", "/etc/passwd",
                           "/userdata", "/proc/self/environ", ""})
    EXPECT_EQ(local(path), Failed("file not found")) << path;
  const std::pair<json, const char*> wrong[] = {
      {json::object(), "Missing required param: type"},
      {{{"type", "local"}}, "Missing required param: filepath"},
      {{{"type", "usb"}}, "Invalid 'type' parameter, must be 'local' or 'remote'"},
      {{{"type", 1}}, "Invalid params"},
      {json::array(), "Invalid params"}};
  for (const auto& [params, text] : wrong)
    EXPECT_EQ(Call("upgrade", params), Error(-32602, text)) << params;
  EXPECT_THAT(Events("start"), IsEmpty());

  EXPECT_TRUE(board_.board.RunService(
      "moonraker",
      {"/bin/sh", "-c",
       "mosquitto_sub -t moonraker/request | while read -r line; do state=$(cat /tmp/state); "
       "id=$(echo \"$line\" | sed 's/.*\"id\":\"\\([^\"]*\\)\".*/\\1/'); "
       "mosquitto_pub -t moonraker/response -m "
       "\"{\\\"jsonrpc\\\":\\\"2.0\\\",\\\"id\\\":\\\"$id\\\","
       "\\\"result\\\":{\\\"status\\\":{\\\"print_stats\\\":{\\\"state\\\":\\\"$state\\\"}}}}\"; "
       "done"}));
  const char* ask =
      "mosquitto_rr -W 1 -t moonraker/request -e moonraker/response -m '{\"id\":\"x\"}'";
  EXPECT_TRUE(test::Eventually([&] { return !board_.board.Shell(ask).out.empty(); }));
  for (const char* state : {"printing", "paused"}) {
    (void)board_.board.Shell(std::string("echo ") + state + " > /tmp/state");
    EXPECT_EQ(local("/userdata/p.bin"), Failed("printer is printing")) << state;
  }
  EXPECT_THAT(Events("start"), IsEmpty());
  (void)board_.board.SignalService("moonraker", SIGKILL);
  (void)board_.board.Shell("pkill -f moonraker/request");

  board_.board.OrderUpgrade("hold\n");
  const json first = board_.rpc.Post("system.upgrade",
                                     {{"type", "local"}, {"filepath", "/userdata/p.bin"}}, kTopic);
  const json second = board_.rpc.Post("system.upgrade",
                                      {{"type", "local"}, {"filepath", "/userdata/p.bin"}}, kTopic);
  EXPECT_EQ(board_.rpc.Await(first), Success());
  EXPECT_EQ(board_.rpc.Await(second), Failed("upgrade is running"));
  EXPECT_TRUE(test::Eventually([&] { return Events("read").size() == 1; }));
  const size_t before = Outcomes().size();
  board_.KillAndStart();
  ASSERT_TRUE(board_.rpc.AwaitDaemon());
  EXPECT_EQ(local("/userdata/p.bin"), Failed("upgrade is running"));
  EXPECT_EQ(Outcomes().size(), before);
  board_.board.OrderUpgrade("");
  EXPECT_EQ(AwaitOutcome(before), (json{{"state", "warning"},
                                        {"reason", "upgrade"},
                                        {"message", "upgrade result is unknown"}}));
  EXPECT_EQ(Events("start").size(), 1U);
  board_.board.OrderUpgrade("exit 3\n");
  EXPECT_TRUE(test::Eventually([&] { return local("/userdata/p.bin") == Success(); }));
  EXPECT_EQ(
      AwaitOutcome(before + 1),
      (json{{"state", "failed"}, {"reason", "upgrade"}, {"message", "system upgrade failed"}}));
  EXPECT_TRUE(test::Eventually([&] { return IsForgotten(); })) << "each is told once";
  board_.Restart();

  board_.board.OrderUpgrade("");
  const char* plug =
      "mkdir -p '/run/a drive' && varnel-usb plug --mount '/run/a drive' --size 10 && "
      "cp /userdata/p.bin '/run/a drive/p.bin'";
  EXPECT_EQ(board_.board.Shell(plug).status, 0);
  EXPECT_TRUE(test::Eventually([&] { return local("/run/a drive/p.bin") == Success(); }));
  EXPECT_EQ(AwaitOutcome(before + 2).at("state"), "success")
      << "no other one came after the restart";
  EXPECT_EQ(Events("read").back().at("sha256"), Sha256Of(board_.File("/userdata/p.bin")));
}

TEST_F(UpgradeTest, OnlyWhatWasCheckedIsFlashed) {
  Publish(500'000, "9.1.0");
  (void)board_.board.Shell(
      "mkdir -p /userdata/elsewhere; rm -rf /userdata/.tmp_upgrade; "
      "ln -s /userdata/elsewhere /userdata/.tmp_upgrade");
  board_.Join();
  EXPECT_EQ(Check().at("state"), "failed") << "the store is a link";
  EXPECT_EQ(board_.board.Shell("ls /userdata/elsewhere").out, "");
  (void)board_.board.Shell("rm /userdata/.tmp_upgrade");
  EXPECT_EQ(Check().at("has_new"), true);
  EXPECT_EQ(Download("9.1.0").at("state"), "success");
  for (const char* change :
       {"cd /userdata/.tmp_upgrade && cp -p 9.1.0.bin ../x && "
        "printf X | dd of=../x conv=notrunc 2>/dev/null && touch -r 9.1.0.bin ../x && "
        "mv ../x 9.1.0.bin",
        "cd /userdata/.tmp_upgrade && mv 9.1.0.bin ../y && ln -s ../y 9.1.0.bin"}) {
    ASSERT_EQ(board_.board.Shell(change).status, 0);
    const size_t before = Outcomes().size();
    EXPECT_EQ(Upgrade(), Success());
    EXPECT_EQ(AwaitOutcome(before).at("reason"), "firmware check failed");
    EXPECT_THAT(Events("start"), IsEmpty());
    EXPECT_EQ(Download("9.1.0").at("state"), "success");
  }
  // A newer one, while the script still reads.
  board_.board.OrderUpgrade("hold\n");
  EXPECT_EQ(Upgrade(), Success());
  EXPECT_TRUE(test::Eventually([&] { return Events("read").size() == 1; }));
  Publish(400'000, "9.1.1");
  EXPECT_EQ(Check().at("fullversion"), "9.1.1");
  EXPECT_NE(Names().find("9.1.0.bin\n"), std::string::npos);
  const size_t before = Outcomes().size();
  board_.board.OrderUpgrade("");
  EXPECT_EQ(AwaitOutcome(before).at("state"), "success");
  EXPECT_EQ(Check().at("has_new"), true);
  EXPECT_EQ(Names(), "remote_firmware_desc.json\n");
}

TEST_F(UpgradeTest, AKilledDownloadGoesOnWhereItWas) {
  // More than comes until the last kill.
  const size_t size = static_cast<size_t>(Kills() + 1) * (size_t{12} << 20U);
  Publish(size, "9.2.0");
  board_.Join();
  EXPECT_TRUE(test::Eventually([&] { return Check().at("has_new") == true; }, 20s));
  TheCloud().SetFaults(std::string("rate ") + kFirmware + " device=" + board_.serial +
                       " 10000000\n");
  std::mt19937 random(3);
  for (int i = 0; i < Kills(); ++i) {
    EXPECT_EQ(Call("upgrade_download_firmware", {{"fullversion", "9.2.0"}}), Success());
    // sleeps: any moment
    std::this_thread::sleep_for(std::chrono::milliseconds(100 + random() % 1000));
    board_.KillAndStart();
    ASSERT_TRUE(board_.rpc.AwaitDaemon());
    EXPECT_TRUE(board_.Await("connected"));
    EXPECT_EQ(Check().at("has_downloaded"), false);
  }
  TheCloud().SetFaults("");
  EXPECT_EQ(Download("9.2.0").at("state"), "success");
  EXPECT_EQ(Sha256Of(board_.File(std::string(kStore) + "9.2.0.bin")), Sha256Of(package_));
  EXPECT_EQ(Names(), "9.2.0.bin\nremote_firmware_desc.json\n");
  size_t sent = 0;
  for (const json& entry : TheCloud().Journal()) {
    if (entry.value("event", "") == "transferred" && entry.value("path", "") == kFirmware &&
        entry.value("board", "") == board_.serial)
      sent += entry.value("sent", size_t{0});
  }
  EXPECT_LE(sent, size + static_cast<size_t>(Kills()) * (size_t{16} << 20U));

  // While the package is read again.
  const size_t before = Outcomes().size();
  board_.board.OrderUpgrade("hold\n");
  EXPECT_EQ(Upgrade(), Success());
  board_.KillAndStart();
  board_.board.OrderUpgrade("");
  EXPECT_EQ(AwaitOutcome(before).at("state"), "warning");
}

TEST_F(UpgradeTest, ASilentCloudHoldsUpNobodyElse) {
  Publish(1000, "9.3.0");
  board_.Join();
  TheCloud().SetFaults("silence api device=" + board_.serial + "\n");
  for (int i = 0; i < 20; ++i) {
    (void)board_.rpc.Post("system.upgrade_check_remote", nullptr, kTopic);
    (void)board_.rpc.Post("mqtt_agent.pull_print_task", {{"job_id", "j"}}, "mqtt_agent/request");
  }
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(Call("get_device_info").at("result").at("state"), "success");
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 200ms);
}

}  // namespace
}  // namespace varnel::board
