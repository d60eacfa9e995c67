#include "service/agent/user_manager.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "MA_USRMGR";
constexpr int kStatusTries = 3;
constexpr std::chrono::milliseconds kStatusPause{1000};
constexpr std::chrono::milliseconds kStopLook{100};
constexpr std::chrono::seconds kStatusLimit{10};
constexpr std::chrono::seconds kOneTry{4};  // of a server that does not answer
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

void UserManager::NotifyLogout(const std::string& region) {
  if (region.empty()) return;
  bool marked = false;
  settings_.Change([&](AgentConfig& config) {
    marked = !config.logouts.contains(region);
    // A mark that knows whom it means is not forgotten for one that does not.
    if (marked || !config.user.id.empty()) config.logouts.insert_or_assign(region, config.user);
  });
  if (!marked) return;
  VLOG_INFO(kTag, "the user of region {} is being logged out", utils::LogText(region));
  const utils::MutexLock lock(telling_);
  told_.erase(region);
}

std::optional<CloudUser> UserManager::TakeLogoutToTell(const std::string& region) {
  auto mark = MarkOf(region);
  if (!mark || mark->id.empty()) return std::nullopt;
  const utils::MutexLock lock(telling_);
  return told_.insert(region).second ? mark : std::nullopt;
}

bool UserManager::HasToken(const std::string& region) const {
  const auto access = authentication_.AccessTo(region);
  return access && access->token;
}

bool UserManager::CheckUserRecordsHTTP(const std::string& region, bool forced_logout) {
  const utils::MutexLock lock(checking_);
  if (!HasToken(region)) return false;
  const auto bound = BoundUser(region);
  if (!bound) return false;
  // A logout may have been asked for while the cloud was.
  const auto mark = MarkOf(region);
  const bool unbinds = forced_logout || (mark && (mark->id.empty() || mark->id == bound->id));
  CloudUser user = *bound;
  if (!user.id.empty() && unbinds) {
    if (!Unbind(region, user)) return false;
    user = {};
  }
  TakeOver(region, user, mark);
  return true;
}

std::optional<CloudUser> UserManager::BoundUser(const std::string& region) {
  const auto reply = api_.ApiDeviceConnectRelation(region);
  if (!reply) return std::nullopt;
  auto user = UserIn(*reply);
  if (!user) VLOG_ERROR(kTag, "the relation of region {} names no user", utils::LogText(region));
  return user;
}

std::optional<CloudUser> UserManager::MarkOf(const std::string& region) const {
  const auto logouts = settings_.Get().logouts;
  const auto found = logouts.find(region);
  return found == logouts.end() ? std::nullopt : std::optional(found->second);
}

bool UserManager::Unbind(const std::string& region, const CloudUser& user) {
  if (!api_.DeviceConnectAuth(region, "unbind", user.id))
    VLOG_WARN(kTag, "the cloud does not take the proof for a logout");
  if (!api_.ApiDeviceConnectUnbind(region, user.id)) return false;
  VLOG_INFO(kTag, "the user of region {} is logged out", utils::LogText(region));
  return true;
}

/// @param done the logout that is over with this; one that came meanwhile stays
void UserManager::TakeOver(const std::string& region, const CloudUser& user,
                           const std::optional<CloudUser>& done) {
  bool changed = false;
  settings_.Change([&](AgentConfig& config) {
    const auto mark = config.logouts.find(region);
    if (done && mark != config.logouts.end() && mark->second == *done) config.logouts.erase(mark);
    // Nobody uses it any more, or not there.
    if (config.reset || config.region != region) return;
    changed = config.user != user;
    config.user = user;
  });
  if (changed && on_user_) on_user_();
}

bool UserManager::Pause() const {
  utils::Clock& clock = *authentication_.Setup().clock;
  const TransferStop& stop = authentication_.Setup().stop;
  for (auto left = kStatusPause; left.count() > 0; left -= kStopLook) {
    if (stop && stop()) return false;
    clock.SleepFor(kStopLook);
  }
  return true;
}

bool UserManager::UpdateDeviceStatus(const std::string& region, int status) {
  if (!HasToken(region)) return false;
  const utils::Clock& clock = *authentication_.Setup().clock;
  const std::string name = settings_.Get().name;
  const json params = {{"name", name.empty() ? authentication_.SerialNumber() : name},
                       {"online", status}};
  const auto end = clock.Now() + kStatusLimit;
  for (int i = 1;; ++i) {
    if (api_.ApiDeviceUpdate(region, params)) return true;
    if (i == kStatusTries || clock.Now() + kStatusPause + kOneTry > end || !Pause()) return false;
  }
}

}  // namespace varnel::service
