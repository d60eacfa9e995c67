#include "service/agent/user_manager.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "MA_USER";
constexpr int kStatusTries = 3;
constexpr std::chrono::seconds kStatusPause{1};
constexpr std::chrono::seconds kStatusLimit{10};
constexpr size_t kMaxNameBytes = 256;

/// A text of a reply, or nothing when it is no name. Null is an empty one.
std::optional<std::string> NameIn(const json& data, const char* name) {
  const auto found = data.find(name);
  if (found == data.end() || found->is_null()) return "";
  if (!found->is_string() || found->get_ref<const std::string&>().size() > kMaxNameBytes)
    return std::nullopt;
  return found->get<std::string>();
}

std::optional<CloudUser> UserIn(const json& reply) {
  const auto data = reply.find("data");
  if (data == reply.end() || data->is_null()) return CloudUser{};
  if (!data->is_object()) return std::nullopt;
  auto id = NameIn(*data, "userId");
  auto name = NameIn(*data, "userName");
  if (!id || !name) return std::nullopt;
  return id->empty() ? CloudUser{} : CloudUser{*std::move(id), *std::move(name)};
}

}  // namespace

UserManager::UserManager(AgentSettings& settings, DeviceAuthentication& authentication,
                         DeviceApi& api, CloudMessageFilter& filter)
    : settings_(settings), authentication_(authentication), api_(api), filter_(filter) {
  filter_.SetOnFirstDrop([this] { TellLogout(); });
}

void UserManager::SetListeners(Listeners listeners) {
  listeners_ = std::move(listeners);
}

void UserManager::LoadConfig() {
  settings_.Load();
  if (!PendingIn(settings_.Get().region).id.empty()) filter_.BeginLogout();
}

void UserManager::NotifyLogout(const std::string& region) {
  bool marked = false;
  settings_.Change([&](AgentConfig& config) {
    if (config.user.id.empty()) return;
    marked = config.logouts.insert_or_assign(region, config.user).second;
  });
  if (!marked) return;
  VLOG_INFO(kTag, "the user of region {} is being logged out", utils::LogText(region));
  filter_.BeginLogout();
}

bool UserManager::CheckUserRecordsHTTP(const std::string& region, bool forced_logout) {
  const utils::MutexLock lock(checking_);
  const CloudUser pending = PendingIn(region);
  // What is left of another region's does not concern this one's requests.
  if (!forced_logout && pending.id.empty()) filter_.EndLogout();
  const auto bound = BoundUser(region);
  if (!bound) return false;
  CloudUser user = *bound;
  if (!user.id.empty() && (forced_logout || user.id == pending.id)) {
    if (!Unbind(region, user)) return false;
    user = {};
  }
  TakeOver(region, user);
  return true;
}

std::optional<CloudUser> UserManager::BoundUser(const std::string& region) {
  const auto reply = api_.ApiDeviceConnectRelation(region);
  if (!reply) return std::nullopt;
  auto user = UserIn(*reply);
  if (!user) VLOG_ERROR(kTag, "the relation of region {} names no user", utils::LogText(region));
  return user;
}

CloudUser UserManager::PendingIn(const std::string& region) const {
  const auto logouts = settings_.Get().logouts;
  const auto found = logouts.find(region);
  return found == logouts.end() ? CloudUser{} : found->second;
}

bool UserManager::Unbind(const std::string& region, const CloudUser& user) {
  if (filter_.TakeUntold() && listeners_.on_logout) listeners_.on_logout(region, user);
  if (!api_.DeviceConnectAuth(region, "unbind", user.id))
    VLOG_WARN(kTag, "the cloud does not take the proof for a logout");
  if (!api_.ApiDeviceConnectUnbind(region, user.id)) return false;
  VLOG_INFO(kTag, "the user of region {} is logged out", utils::LogText(region));
  return true;
}

void UserManager::TakeOver(const std::string& region, const CloudUser& user) {
  bool changed = false;
  bool told = false;
  settings_.Change([&](AgentConfig& config) {
    told = config.logouts.erase(region) > 0;
    changed = config.user != user;
    config.user = user;
  });
  if (told) filter_.EndLogout();
  if (changed && listeners_.on_user) listeners_.on_user();
}

void UserManager::TellLogout() {
  const AgentConfig config = settings_.Get();
  if (!config.logouts.empty() && listeners_.on_logout)
    listeners_.on_logout(config.logouts.begin()->first, config.logouts.begin()->second);
}

bool UserManager::UpdateDeviceStatus(const std::string& region, int status) {
  utils::Clock& clock = *authentication_.Setup().clock;
  const TransferStop& stop = authentication_.Setup().stop;
  const auto access = authentication_.AccessTo(region);
  if (!access || !access->token) return false;
  const std::string name = settings_.Get().name;
  const json params = {{"name", name.empty() ? authentication_.SerialNumber() : name},
                       {"online", status}};
  const auto end = clock.Now() + kStatusLimit;
  for (int i = 0; i < kStatusTries; ++i) {
    if (i > 0) clock.SleepFor(kStatusPause);
    if ((stop && stop()) || clock.Now() >= end) return false;
    if (api_.ApiDeviceUpdate(region, params)) return true;
  }
  return false;
}

}  // namespace varnel::service
