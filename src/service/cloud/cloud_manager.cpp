#include "service/cloud/cloud_manager.h"

#include <chrono>
#include <random>
#include <utility>

#include "service/agent/agent.h"
#include "service/agent/agent_methods.h"
#include "service/agent/agent_settings.h"
#include "service/agent/client_log.h"
#include "service/agent/cloud_message_filter.h"
#include "service/agent/comms_link.h"
#include "service/agent/tcp_probe.h"
#include "service/agent/user_manager.h"
#include "utils/log.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "CLOUDSRV";
constexpr std::chrono::seconds kStopLimit{2};
constexpr std::chrono::milliseconds kStopLook{20};
constexpr std::chrono::seconds kPrepareAgain{1};
/// The agent's own requests hold up its loop.
constexpr int32_t kAgentTimeoutS = 4;

using Flag = std::shared_ptr<std::atomic<bool>>;

AuthenticationSetup IdentityOf(const CloudSetup& setup, const Flag& stopping) {
  AuthenticationSetup identity;
  identity.serial_number = setup.serial_number;
  identity.private_key = setup.private_key;
  identity.firmware_version = setup.firmware_version;
  identity.places = setup.places;
  identity.country_code_path = setup.country_code_path;
  identity.certificates = setup.data_root / "certs";
  identity.credential_key = setup.credential_key;
  identity.stop = [stopping] { return stopping->load(); };
  identity.clock = setup.clock;
  return identity;
}

/// From 0 up to 1, for one thread.
std::function<double()> RandomNumbers() {
  return [numbers = std::mt19937(std::random_device()())]() mutable {
    return std::uniform_real_distribution<double>(0.0, 1.0)(numbers);
  };
}

/// A board that has just started may be short of threads for a moment.
void Prepare(Agent& agent, utils::Clock& clock) {
  while (!agent.IsStopping()) {
    try {
      return agent.PreConnectInit();
    } catch (const std::exception& error) {
      VLOG_ERROR(kTag, "The agent cannot be prepared: {}", error.what());
      clock.SleepFor(kPrepareAgain);
    }
  }
}

}  // namespace

/// The agent and all that it works with. The agent's thread and the methods' registrations share
/// it: one that is stuck in a call finds everything in its place.
struct CloudManager::Side : std::enable_shared_from_this<CloudManager::Side> {
  Side(const CloudSetup& setup, const Flag& stopping, std::shared_ptr<utils::Permits> cloud_turns)
      : comms(*setup.comms),
        turns(std::move(cloud_turns)),
        clock(setup.clock),
        settings(setup.data_root / "mqtt/agent_config.json"),
        filter([this] { return settings.Get().logouts.contains(authentication.Region()); }),
        authentication(IdentityOf(setup, stopping)),
        api(MakeApi(setup, kAgentTimeoutS)),
        link(comms, filter),
        users(settings, authentication, *api),
        log(authentication, setup.client_log_path, [this] { return MayReport(); }),
        agent(AgentSetupOf(setup, stopping)),
        firmware_api(MakeApi(setup, HttpSettings().timeout_s)),
        methods(agent, settings, users, authentication, *turns,
                [this, &setup] { return MakeApi(setup, HttpSettings().timeout_s); }) {
    settings.Load();  // before a method can change it
    users.SetOnUser([this] {
      agent.SyncConfig();
      agent.SendStatusNotification();
    });
  }

  bool MayReport() const { return settings.Get().link_mode == "wan"; }

  std::unique_ptr<DeviceApi> MakeApi(const CloudSetup& setup, int32_t timeout_s) {
    return std::make_unique<DeviceApi>(
        authentication, setup.disconnected_code, [this] { agent.OnServerDisconnected(); },
        timeout_s);
  }

  AgentSetup AgentSetupOf(const CloudSetup& setup, const Flag& stopping) {
    AgentSetup parts;
    parts.data_root = setup.data_root;
    parts.serial_number_file = setup.serial_number_file;
    parts.serial_number = setup.serial_number;
    parts.places = setup.places;
    parts.settings = &settings;
    parts.comms = &link;
    parts.credentials = &authentication;
    parts.users = &users;
    parts.probe = TcpProbe([stopping] { return stopping->load(); });
    parts.take_dropped = [this] { return filter.TakeDropped(); };
    parts.start_service = [this] { methods.Register(comms, shared_from_this()); };
    parts.post_client_log = [this](const char* level, const std::string& message) {
      log.PostClientLog(level, message);
    };
    parts.random = RandomNumbers();
    parts.clock = setup.clock;
    return parts;
  }

  comms::CommsManager& comms;
  const std::shared_ptr<utils::Permits> turns;
  utils::Clock* const clock;
  AgentSettings settings;
  CloudMessageFilter filter;
  DeviceAuthentication authentication;
  const std::unique_ptr<DeviceApi> api;
  CommsLink link;
  UserManager users;
  ClientLog log;
  Agent agent;
  const std::unique_ptr<DeviceApi> firmware_api;
  AgentMethods methods;
};

CloudManager::CloudManager(CloudSetup setup)
    : setup_(std::move(setup)),
      turns_(std::make_shared<utils::Permits>(AgentMethods::kTurns)),
      access_([stopping = stopping_] { return stopping->load(); }, *setup_.clock) {}

CloudManager::~CloudManager() {
  Stop();
}

std::shared_ptr<CloudManager::Side> CloudManager::CurrentSide() const {
  const utils::MutexLock lock(side_mutex_);
  return side_;
}

bool CloudManager::IsConnected() const {
  const auto side = CurrentSide();
  return side && side->agent.State() == AgentState::CONNECTED;
}

void CloudManager::ForEachSecret(const std::function<void(std::string_view secret)>& visit) const {
  if (const auto side = CurrentSide()) side->authentication.ForEachSecret(visit);
}

std::optional<nlohmann::json> CloudManager::FirmwareRecord() const {
  const auto side = CurrentSide();
  if (!side) return std::nullopt;
  return side->firmware_api->ApiDeviceFirmwareLatest(side->authentication.Region(),
                                                     nlohmann::json::object());
}

void CloudManager::Start() {
  if (CurrentSide()) {
    VLOG_WARN(kTag, "CloudManager already started, ignoring duplicate Start()");
    return;
  }
  const auto new_side = std::make_shared<Side>(setup_, stopping_, turns_);
  {
    const utils::MutexLock lock(side_mutex_);
    side_ = new_side;
  }
  access_.SetSource({{new_side, &new_side->agent}, {new_side, &new_side->authentication}});
  finished_ = std::make_shared<std::atomic<bool>>(false);
  thread_ = utils::SpawnGuarded("cloud-agent", kTag, [side = new_side, finished = finished_] {
    const std::shared_ptr<void> at_end(nullptr, [&](void*) { *finished = true; });
    Prepare(side->agent, *side->clock);
    side->agent.Run();
  });
  VLOG_INFO(kTag, "CloudManager started: agent thread running");
}

void CloudManager::RequestStop() {
  *stopping_ = true;
  if (const auto side = CurrentSide()) side->agent.Stop();
}

void CloudManager::Stop() {
  const auto side = CurrentSide();
  if (!side) return;
  RequestStop();
  const auto end = std::chrono::steady_clock::now() + kStopLimit;
  while ((!*finished_ || *transfers_ > 0) && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(kStopLook);
  if (!thread_.joinable()) {
    VLOG_WARN(kTag, "There is no agent thread");
  } else if (*finished_) {
    thread_.join();
  } else {
    VLOG_WARN(kTag, "Agent thread did not exit within 2s, detaching");
    thread_.detach();
  }
  side->agent.ClearOnConnected();
  access_.SetSource({});
  {
    const utils::MutexLock lock(side_mutex_);
    side_.reset();
  }
  VLOG_INFO(kTag, "CloudManager stopped");
}

}  // namespace varnel::service
