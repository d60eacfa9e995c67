#include "service/agent/agent_methods.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

#include "comms/json_rpc_message.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using comms::MakeError;
using comms::MethodKind;
using comms::RpcError;
using nlohmann::json;

constexpr const char* kTag = "MA_ISVC";
constexpr uint32_t kLocalOnly = 0;
constexpr size_t kMaxNameBytes = 128;
constexpr size_t kMaxIdBytes = 256;
constexpr size_t kMaxUrlBytes = 4096;
constexpr int64_t kMaxStatus = 255;
constexpr int kGoodCode = 200;

json InvalidParams() {
  return MakeError(RpcError::kInvalidParams, "Invalid params");
}

json Failed(const char* message) {
  return MakeError(RpcError::kOperationFailed, message);
}

json Success() {
  return {{"state", "success"}};
}

/// A text of one line, not empty.
std::optional<std::string> TextIn(const json& params, const char* name, size_t max_bytes) {
  if (!params.is_object()) return std::nullopt;
  const auto found = params.find(name);
  if (found == params.end() || !found->is_string()) return std::nullopt;
  auto text = found->get<std::string>();
  const auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
  const bool good = !text.empty() && text.size() <= max_bytes &&
                    std::none_of(text.begin(), text.end(), is_control);
  return good ? std::optional(std::move(text)) : std::nullopt;
}

bool IsEmpty(const json& params) {
  return params.is_null() || (params.is_object() && params.empty());
}

}  // namespace

AgentMethods::AgentMethods(Agent& agent, AgentSettings& settings, AgentUsers& users,
                           DeviceAuthentication& authentication, utils::Permits& turns,
                           const MakeApi& make_api)
    : agent_(agent),
      settings_(settings),
      users_(users),
      authentication_(authentication),
      turns_(turns) {
  for (Slot& slot : slots_) slot.api = make_api();
}

void AgentMethods::Register(comms::CommsManager& comms, const std::shared_ptr<void>& owner) {
  using Method = json (AgentMethods::*)(const json&);
  using PlainMethod = json (AgentMethods::*)();
  const auto add = [&](const char* name, MethodKind kind, comms::RpcHandler handler) {
    if (comms.RegisterMethod(name, kLocalOnly, kind, std::move(handler)) != comms::CommsStatus::kOk)
      VLOG_ERROR(kTag, "{} is not registered", name);
  };
  const auto with_params = [&](const char* name, MethodKind kind, Method method) {
    add(name, kind, [this, owner, method](const json& params) { return (this->*method)(params); });
  };
  const auto without = [&](const char* name, MethodKind kind, PlainMethod method) {
    add(name, kind, [this, owner, method](const json& params) {
      return IsEmpty(params) ? (this->*method)() : InvalidParams();
    });
  };
  with_params("mqtt_agent.set_region", MethodKind::kCommand, &AgentMethods::SetRegion);
  with_params("mqtt_agent.set_link_mode", MethodKind::kCommand, &AgentMethods::SetLinkMode);
  with_params("mqtt_agent.sync_config", MethodKind::kCommand, &AgentMethods::SyncConfig);
  without("mqtt_agent.logout", MethodKind::kCommand, &AgentMethods::Logout);
  without("mqtt_agent.factory_reset", MethodKind::kCommand, &AgentMethods::FactoryReset);
  with_params("mqtt_agent.update_device_status", MethodKind::kNetwork,
              &AgentMethods::UpdateDeviceStatus);
  with_params("mqtt_agent.refresh_auth_code", MethodKind::kNetwork, &AgentMethods::RefreshAuthCode);
  with_params("mqtt_agent.push_print_task", MethodKind::kNetwork, &AgentMethods::PushPrintTask);
  with_params("mqtt_agent.pull_print_task", MethodKind::kNetwork, &AgentMethods::PullPrintTask);
  with_params("mqtt_agent.authorize_file_url", MethodKind::kNetwork,
              &AgentMethods::AuthorizeFileUrl);
}

json AgentMethods::SetRegion(const json& params) {
  const auto region = TextIn(params, "region", kMaxNameBytes);
  if (!region || !authentication_.Places().regions.contains(*region)) return InvalidParams();
  agent_.SetRegion(*region);
  return Success();
}

json AgentMethods::SetLinkMode(const json& params) {
  const auto mode = TextIn(params, "link_mode", kMaxNameBytes);
  if (mode != "wan" && mode != "lan") return InvalidParams();
  agent_.SetLinkMode(*mode);
  return Success();
}

json AgentMethods::SyncConfig(const json& params) {
  if (!IsEmpty(params)) {
    const auto name = TextIn(params, "name", kMaxNameBytes);
    if (!name) return InvalidParams();
    const bool is_new = settings_.Get().name != *name;
    settings_.Change([&](AgentConfig& config) { config.name = *name; });
    if (is_new) agent_.TellStatusNow();
  }
  agent_.SyncConfig();
  const AgentConfig config = settings_.Get();
  json answer = Success();
  answer["status"] = StatusNameOf(agent_.State());
  answer["region"] = config.region;
  answer["link_mode"] = config.link_mode;
  answer["name"] = agent_.Announcer().DeviceName();
  answer["userid"] = config.user.id;
  answer["username"] = config.user.name;
  answer["last_failure"] = NameOf(agent_.LastFailure());
  return answer;
}

json AgentMethods::Logout() {
  users_.NotifyLogout(settings_.Get().region);
  agent_.CheckRecordsNow();
  return Success();
}

json AgentMethods::FactoryReset() {
  agent_.FactoryReset();
  return Success();
}

json AgentMethods::UpdateDeviceStatus(const json& params) {
  const auto status = params.is_object() ? params.find("status") : params.end();
  if (!params.is_object() || status == params.end() || !status->is_number_unsigned() ||
      status->get<uint64_t>() > kMaxStatus)
    return InvalidParams();
  const int value = status->get<int>();
  return WithCloud([&](DeviceApi& api, const std::string& region) {
    const json update = {{"name", agent_.Announcer().DeviceName()}, {"online", value}};
    if (!api.ApiDeviceUpdate(region, update)) return json();
    agent_.SetOnlineStatus(value);
    return Success();
  });
}

json AgentMethods::RefreshAuthCode(const json& params) {
  if (!params.is_null() && !params.is_object()) return InvalidParams();
  return WithCloud([&](DeviceApi& api, const std::string& region) {
    const auto code = api.ApiDeviceConnectCode(region, params.is_null() ? json::object() : params);
    return code ? json{{"state", "success"}, {"code", *code}} : json();
  });
}

json AgentMethods::PushPrintTask(const json& params) {
  if (!params.is_object() || params.empty()) return InvalidParams();
  return WithCloud([&](DeviceApi& api, const std::string& region) {
    const auto reply = api.ApiDevicePrint(region, params);
    return reply && reply->at("code") == kGoodCode ? Success() : json();
  });
}

json AgentMethods::PullPrintTask(const json& params) {
  const auto job = TextIn(params, "job_id", kMaxIdBytes);
  if (!job) return InvalidParams();
  return WithCloud([&](DeviceApi& api, const std::string& region) {
    const auto task = api.ApiDevicePrintGet(region, {{"job_id", *job}});
    return task ? json{{"state", "success"}, {"task", *task}} : json();
  });
}

json AgentMethods::AuthorizeFileUrl(const json& params) {
  const auto url = TextIn(params, "url", kMaxUrlBytes);
  if (!url) return InvalidParams();
  return WithCloud([&](DeviceApi& api, const std::string& region) {
    const auto authorized = api.UrlAuthorize(region, *url);
    return authorized ? json{{"state", "success"}, {"url", *authorized}} : json();
  });
}

json AgentMethods::WithCloud(const Ask& ask) {
  if (agent_.State() != AgentState::CONNECTED) return Failed("Cloud not connected");
  const auto turn = turns_.TryTake();
  if (!turn) return Failed("Server busy");
  for (Slot& slot : slots_) {
    if (!slot.busy.TryLock()) continue;
    const utils::MutexLock lock(slot.busy, std::adopt_lock);
    return AskOver(*slot.api, ask);
  }
  return Failed("Server busy");
}

json AgentMethods::AskOver(DeviceApi& api, const Ask& ask) {
  const json answer = ask(api, authentication_.Region());
  return answer.is_null() ? Failed("Cloud request failed") : answer;
}

}  // namespace varnel::service
