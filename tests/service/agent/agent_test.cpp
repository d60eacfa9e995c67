#include "service/agent/agent.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include <array>
#include <thread>

#include "service/agent/agent_world.h"
#include "support/eventually.h"

namespace varnel::service {
namespace {

using enum AgentState;
using testing::HasSubstr;

enum Event { kServer, kRegion, kLan, kUp, kDown };  // in the order in which a pass looks at them

constexpr std::array kStates{INIT,
                             IDLE,
                             NETWORK_DETECTION,
                             GET_ACCESS_TOKEN,
                             FETCHING_AUTH_INFO,
                             BROKER_DETECTION,
                             CONNECTING_BROKER,
                             CONNECTED,
                             REGION_LOCKED};

/// What an event does in states from one to another; in all others it is only told.
struct EventRow {
  Event event;
  AgentState first;
  AgentState last;
  const char* calls;
  AgentState to;
  const char* text;
};

constexpr const char* kLeave =
    "disconnected config(disconnected) disconnect online(int,0) unbind(int)";
constexpr std::array kEventRows{
    EventRow{kServer, CONNECTED, CONNECTED,
             "report(SERVER_DISCONNECTED) online(int,0) disconnect config(disconnected)",
             FETCHING_AUTH_INFO, "HTTP server disconnected, updating device status to offline"},
    EventRow{kRegion, IDLE, IDLE, "certs-", IDLE,
             "Region changed in IDLE state, removing client certificates"},
    EventRow{kRegion, GET_ACCESS_TOKEN, REGION_LOCKED, kLeave, IDLE,
             "Region changed at state {}, logout user at previous region: int"},
    EventRow{kLan, NETWORK_DETECTION, REGION_LOCKED, kLeave, IDLE,
             "Link mode changed to LAN at state {}, logout user at previous region: int"},
    EventRow{kUp, CONNECTING_BROKER, CONNECTING_BROKER,
             "check(int) online(int,1) notify_bind_user\"int\" config(connected) connected",
             CONNECTED, "Connected to cloud broker"},
    EventRow{kDown, CONNECTING_BROKER, CONNECTING_BROKER, "", CONNECTING_BROKER,
             "Failed to connect to cloud broker, retrying..."},
    EventRow{
        kDown, CONNECTED, CONNECTED,
        "report(CONNECTION_LOST) connecting_broker config(disconnected) disconnect online(int,0)",
        CONNECTING_BROKER, "State transition: {} -> CONNECTING_BROKER"},
};
constexpr std::array kIgnored{
    "HTTP server disconnected in LAN mode or region changed, no action taken",
    "Region changed in state {}, no action taken", "", "Cloud MQTT connected in state {}, ignored",
    "Cloud MQTT disconnected in state {}, ignored"};

EventRow RowOf(AgentState state, Event event) {
  for (const EventRow& row : kEventRows)
    if (row.event == event && state >= row.first && state <= row.last) return row;
  return {event, state, state, "", state, kIgnored.at(event)};
}

/// What the step of a state does when all goes well.
std::string StepOf(AgentState state, const AgentWorld& world) {
  const AgentConfig config = world.settings.Get();
  const char* host = config.region == "cn" ? "api.cn" : "acc.int";
  switch (state) {
    case INIT:
      return "load";
    case IDLE:
      return config.link_mode == "lan" ? "wait(1100)" : "";
    case NETWORK_DETECTION:
      return fmt::format("detecting_network config(disconnected) probe({}:443)", host);
    case GET_ACCESS_TOKEN:
      return "fetching_authentication region(" + config.region + ") token(25)";
    case FETCHING_AUTH_INFO:
      return "fetching_authentication info- info";
    case BROKER_DETECTION:
      return "detecting_broker probe(broker:8883)";
    case CONNECTING_BROKER:
      return "wait(1100)";
    case CONNECTED:
      return "wait(100)";
    case REGION_LOCKED:
      return "config(disconnected) region_locked wait(1100)";
  }
  return {};
}

void Raise(Agent& agent, Event event) {
  if (event == kServer) agent.OnServerDisconnected();
  if (event == kRegion) agent.SetRegion("cn");
  if (event == kLan) agent.SetLinkMode("lan");
  if (event == kUp) agent.OnCloudConnected();
  if (event == kDown) agent.OnCloudDisconnected();
}

/// One pass in which these events are met. With a change of region or link mode the server's notice
/// does nothing, and what ends the link takes its events along.
void CheckPass(AgentState from, const std::vector<Event>& events) {
  AgentWorld world;
  world.Walk(from);
  for (const Event event : events) Raise(world.agent(), event);
  world.Calls();
  AgentState state = from;
  std::vector<std::string> calls;
  const bool changes = events.back() == kRegion || events.back() == kLan;
  bool link_ended = false;
  bool lost = false;
  for (const Event event : events) {
    if (link_ended && (event == kUp || event == kDown)) continue;
    const EventRow row = event == kServer && changes ? RowOf(INIT, event) : RowOf(state, event);
    SCOPED_TRACE(row.text);
    if (*row.calls != '\0') calls.emplace_back(row.calls);
    link_ended = calls.empty() ? link_ended : row.to == IDLE || row.to == FETCHING_AUTH_INFO;
    lost = state == CONNECTED && row.to == CONNECTING_BROKER;
    if (!(event == kServer && changes)) state = row.to;
  }
  if (from == IDLE)
    calls.emplace_back("disconnected config(disconnected)");  // nobody has told it yet
  calls.push_back(lost ? "wait(2500)" : StepOf(state, world));
  world.agent().Pass();
  if (calls.back().empty()) calls.pop_back();
  EXPECT_EQ(world.Calls(), fmt::format("{}", fmt::join(calls, " ")));
  for (const Event event : events) {
    if (events.size() > 1) break;
    const std::string text = RowOf(from, event).text;
    EXPECT_THAT(world.log.Text(), HasSubstr(fmt::format(fmt::runtime(text), NameOf(from))));
  }
}

TEST(AgentEventsTest, EachEventAndEachTwoOfOnePassInEachState) {
  for (const AgentState from : kStates) {
    for (int i = kServer; i <= kDown; ++i) {
      SCOPED_TRACE(fmt::format("{}, event {}", NameOf(from), i));
      CheckPass(from, {static_cast<Event>(i)});
      for (int j = i + 1; j <= kDown; ++j) {
        SCOPED_TRACE(fmt::format("and event {}", j));
        CheckPass(from, {static_cast<Event>(i), static_cast<Event>(j)});
      }
    }
  }
}

/// What a state does when something keeps failing, pass after pass.
struct FailureRow {
  AgentState state;
  void (*breaks)(AgentWorld& world);
  std::vector<std::string> passes;
  AgentState to;
  const char* text;
};

void NoToken(AgentWorld& world) {
  world.token_works = false;
}
void NoInfo(AgentWorld& world) {
  world.info_works = false;
}
void Throws(AgentWorld& world) {
  world.throws = true;
}
void Unreachable(AgentWorld& world) {
  world.probe_error = "TCP connection failed: Connection refused";
}

std::vector<std::string> Times(size_t count, const std::string& pass, const std::string& last) {
  std::vector<std::string> passes(count, pass);
  passes.push_back(last);
  return passes;
}

TEST(AgentStepsTest, EachFailureIsTriedAgainAsOftenAsItsStateSaysAndReportedOnce) {
  const std::string network = "detecting_network config(disconnected) probe(acc.int:443)";
  const std::string token = "fetching_authentication region(int) token(25)";
  const std::string info = "fetching_authentication info- info";
  const std::string broker = "detecting_broker probe(broker:8883)";
  const std::vector<FailureRow> rows{
      {IDLE, [](AgentWorld& world) { world.local_up = false; }, {"wait(1100)"}, IDLE, ""},
      {NETWORK_DETECTION,
       Unreachable,
       {network + " wait(1100)", network + " wait(1100)", network + " wait(1100)",
        network + " report(NETWORK_UNREACHABLE) wait(1100)", network + " wait(1100)"},
       NETWORK_DETECTION,
       "Internet not reachable, retrying..."},
      {GET_ACCESS_TOKEN, NoToken,
       Times(4, token + " wait(3300)", token + " report(ACCESS_TOKEN_FAILED)"), IDLE,
       "Exceeded maximum retries for fetching access token, returning to IDLE state"},
      {GET_ACCESS_TOKEN, Throws,
       Times(4, token + " wait(3300)", token + " report(ACCESS_TOKEN_FAILED)"), IDLE,
       "Exception during fetching access token: thrown"},
      {GET_ACCESS_TOKEN,
       [](AgentWorld& world) { world.token_works = !(world.region_locked = true); },
       {token + " report(REGION_LOCKED)", "config(disconnected) region_locked wait(1100)",
        "wait(1100)", "config(disconnected) region_locked wait(1100)"},
       REGION_LOCKED,
       "Region locked (code 602013), entering REGION_LOCKED state"},
      {FETCHING_AUTH_INFO, NoInfo,
       Times(4, info + " wait(3300)", info + " report(AUTH_INFO_FAILED)"), IDLE,
       "Exceeded maximum retries for fetching auth info, returning to IDLE state"},
      {FETCHING_AUTH_INFO, Throws,
       Times(4, info + " wait(3300)", info + " report(AUTH_INFO_FAILED)"), IDLE,
       "Exception during fetching auth info: thrown"},
      {BROKER_DETECTION, Unreachable,
       Times(2, broker + " wait(1100)", broker + " report(BROKER_UNREACHABLE)"), IDLE,
       "Broker unreachable: TCP connection failed: Connection refused"},
  };
  for (const FailureRow& row : rows) {
    SCOPED_TRACE(NameOf(row.state));
    AgentWorld world;
    world.Walk(row.state);
    row.breaks(world);
    for (const std::string& pass : row.passes) {
      world.agent().Pass();
      EXPECT_EQ(world.Calls(), pass);
    }
    EXPECT_EQ(NameOf(world.agent().State()), std::string(NameOf(row.to)));
    EXPECT_THAT(world.log.Text(), HasSubstr(row.text));
  }
}

TEST(AgentStepsTest, ABrokerThatRefusesIsTriedFiveTimesAndThenAllIsFetchedAnew) {
  AgentWorld world;
  world.Walk(CONNECTING_BROKER);
  for (const char* pause : {"1100", "2200", "4400", "8800"}) {
    world.agent().OnCloudDisconnected();
    world.PassTimes(2);
    EXPECT_EQ(world.Calls(), fmt::format("wait({}) connecting_broker connect(broker)", pause));
  }
  world.agent().OnCloudDisconnected();
  world.PassTimes(2);
  EXPECT_EQ(world.Calls(),
            "disconnect certs- info- report(BROKER_CONNECT_FAILED) disconnected "
            "config(disconnected) wait(1100)");
  world.Walk(BROKER_DETECTION);
  world.throws = true;
  world.PassTimes(2);
  EXPECT_THAT(world.Calls(), HasSubstr("connect(broker) disconnect report(BROKER_CONNECT_FAILED)"));
  world.throws = false;
  world.PassTimes(1);
  EXPECT_EQ(world.Calls(), "disconnected config(disconnected) wait(2200)")
      << "the pause grows with each cycle";

  for (const bool distrusted : {false, false, true}) {
    world.probe_error.clear();
    world.Walk(BROKER_DETECTION);
    Unreachable(world);
    world.PassTimes(3);
    EXPECT_EQ(world.Calls().find("cache-") != std::string::npos, distrusted);
  }
  world.probe_error.clear();
  world.Walk(CONNECTING_BROKER);
  world.agent().OnCloudDisconnected(true);
  world.PassTimes(1);
  EXPECT_EQ(world.Calls(), "wait(33000)") << "taken over while it subscribed";
  world.clock().SetWallTime({});
  for (int i = 0; i < 5; ++i) {
    world.agent().OnCloudDisconnected();
    world.PassTimes(1);
  }
  EXPECT_THAT(world.Calls(), testing::Not(HasSubstr("certs-"))) << "the clock is at fault";

  world.Walk(CONNECTED);
  world.cloud_up = false;
  world.agent().OnCloudDisconnected();
  world.PassTimes(1);
  EXPECT_THAT(world.Calls(), testing::EndsWith("wait(2500)")) << "an ordinary loss";
}

TEST(AgentStepsTest, AConnectedDeviceSyncsAndRefreshesItsToken) {
  AgentWorld world;
  int told = 0;
  world.agent().AddOnConnected([&] { ++told; });
  world.Walk(CONNECTED);
  EXPECT_EQ(told, 1);
  world.PassTimes(298);
  EXPECT_THAT(world.Calls(), testing::Not(HasSubstr("config")));
  world.PassTimes(1);
  EXPECT_EQ(world.Calls(), "config(connected) connected check(int) wait(100)");
  world.clock().Advance(std::chrono::hours(24));
  world.PassTimes(2);
  EXPECT_EQ(world.Calls(), "refresh wait(100) wait(100)");
  EXPECT_EQ(told, 2);
  world.token_refused = true;
  world.users_work = false;
  world.clock().Advance(std::chrono::seconds(30));
  world.agent().TellStatusNow();
  world.PassTimes(1);
  EXPECT_EQ(world.Calls(), "online(int,1) refresh wait(100)");
  world.users_work = true;
  world.PassTimes(1);
  EXPECT_EQ(world.Calls(), "wait(100)") << "a refused token is replaced every half minute at most";
  world.token_refused = false;
  world.dropped = world.logs_out = true;
  world.PassTimes(2);
  EXPECT_EQ(world.Calls(), "config(connected) notify_logout\"int\" wait(100) wait(100)");
  world.PassTimes(295);
  EXPECT_THAT(world.Calls(), HasSubstr("check(int) online(int,1) wait(100)")) << "told at last";
  world.clock().Advance(std::chrono::hours(24));
  world.refresh_works = false;
  world.PassTimes(4);
  EXPECT_EQ(world.Calls(),
            "refresh wait(100) refresh wait(100) refresh wait(100) refresh wait(100)");
  world.PassTimes(1);
  EXPECT_EQ(world.Calls(),
            "refresh report(TOKEN_REFRESH_FAILED) online(int,0) disconnect wait(100)");
  EXPECT_EQ(world.agent().State(), IDLE);
}

TEST(AgentTest, StartsWithItsFilesAndForgetsAllOnAReset) {
  AgentWorld world;
  world.agent().PreConnectInit();
  EXPECT_EQ(world.Calls(), "forward(SN12345) service");
  EXPECT_EQ(test::ReadFile(world.dir / "oem/.sn"), "SN12345");
  world.Walk(CONNECTED);
  world.agent().FactoryReset();
  EXPECT_EQ(world.Calls(), "logout(int)");
  world.PassTimes(1);
  EXPECT_EQ(
      world.Calls(),
      "disconnected config(disconnected) disconnect online(int,0) unbind(int) certs- info- tokens- "
      "config(disconnected) wait(1100)");
  EXPECT_EQ(world.settings.Get(), AgentConfig());

  AgentSetup poor = world.Setup();
  poor.serial_number = "";
  poor.credentials = nullptr;
  world.Restart(std::move(poor));
  world.agent().PreConnectInit();
  EXPECT_TRUE(
      world.log.Has("MA_AGENT", "Serial number not available yet, cannot setup forwarders"));
  EXPECT_EQ(test::ReadFile(world.dir / "oem/.sn"), "SN12345");
  world.settings.Change([](AgentConfig& config) { config.region = "int"; });
  world.PassTimes(2);
  EXPECT_EQ(world.agent().State(), IDLE);
  EXPECT_TRUE(world.log.Has("MA_AGENT", "region: int, link_mode: wan, sn: "));
}

TEST(AgentTest, EventsOfManyThreadsAreEachHandledOnce) {
  AgentWorld world;
  world.settings.Change([](AgentConfig& config) {
    config.region = "int";
    config.link_mode = "lan";
  });
  Agent& agent = world.agent();
  std::jthread loop([&] { agent.Run(); });
  EXPECT_TRUE(test::Eventually([&] { return agent.State() == IDLE; }));
  const auto raise = [&](const char* text, const std::function<void(int)>& event) {
    return std::jthread([&world, text, event] {
      for (int i = 1; i <= 20; ++i) {
        event(i);
        const auto count = static_cast<size_t>(i);
        EXPECT_TRUE(test::Eventually([&] { return world.log.Count("MA_AGENT", text) >= count; }));
      }
      EXPECT_EQ(world.log.Count("MA_AGENT", text), 20U) << text;
    });
  };
  {
    const std::array<std::jthread, 4> threads{
        raise("Cloud MQTT connected in state IDLE, ignored",
              [&](int) { agent.OnCloudConnected(); }),
        raise("Cloud MQTT disconnected in state IDLE, ignored",
              [&](int) { agent.OnCloudDisconnected(); }),
        raise("HTTP server disconnected in LAN mode or region changed, no action taken",
              [&](int) { agent.OnServerDisconnected(); }),
        raise("Region changed in IDLE state, removing client certificates",
              [&](int i) { agent.SetRegion(i % 2 == 0 ? "int" : "cn"); }),
    };
  }
  agent.Stop();
}

}  // namespace
}  // namespace varnel::service
