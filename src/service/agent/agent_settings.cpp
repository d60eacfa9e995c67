#include "service/agent/agent_settings.h"

#include <nlohmann/json.hpp>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/temporary_name.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "MA_AGENT";
constexpr size_t kMaxFileBytes = size_t{64} << 10U;
constexpr mode_t kFileMode = 0600;

json ToJson(const CloudUser& user) {
  return {{"id", user.id}, {"name", user.name}};
}

json ToJson(const AgentConfig& config) {
  json document = {{"region", config.region},
                   {"link_mode", config.link_mode},
                   {"name", config.name},
                   {"user", ToJson(config.user)}};
  for (const auto& [region, user] : config.logouts) document["logouts"][region] = ToJson(user);
  if (config.reset) document["reset"] = true;
  return document;
}

/// Takes the values of one object; an unknown key is nobody's.
class Reader {
 public:
  Reader(const json& object, std::string prefix) : object_(object), prefix_(std::move(prefix)) {}

  const json* Object(const char* name) const {
    const auto found = object_.find(name);
    if (found == object_.end()) return nullptr;
    if (found->is_object()) return &*found;
    Complain(name);
    return nullptr;
  }
  template <class Value>
  void Read(const char* name, Value& value) const {
    const auto found = object_.find(name);
    if (found == object_.end()) return;
    constexpr bool is_text = std::is_same_v<Value, std::string>;
    if (is_text ? found->is_string() : found->is_boolean()) {
      value = found->get<Value>();
    } else {
      Complain(name);
    }
  }
  void ReadUser(const std::string& name, CloudUser& user) const {
    const json* object = Object(name.c_str());
    if (object == nullptr) return;
    const Reader reader(*object, prefix_ + name + ".");
    reader.Read("id", user.id);
    reader.Read("name", user.name);
  }

 private:
  void Complain(const char* name) const {
    VLOG_WARN(kTag, "agent configuration: {}{} has a wrong type, the default is used", prefix_,
              name);
  }

  const json& object_;
  const std::string prefix_;
};

AgentConfig FromJson(const json& document) {
  AgentConfig config;
  const Reader reader(document, "");
  reader.Read("region", config.region);
  reader.Read("link_mode", config.link_mode);
  reader.Read("name", config.name);
  reader.ReadUser("user", config.user);
  reader.Read("reset", config.reset);
  if (const json* logouts = reader.Object("logouts")) {
    for (const auto& [region, user] : logouts->items())
      Reader(*logouts, "logouts.").ReadUser(region, config.logouts[region]);
  }
  if (config.link_mode != "wan" && config.link_mode != "lan") {
    VLOG_WARN(kTag, "agent configuration: unknown link mode {}, \"wan\" is used",
              utils::LogText(config.link_mode));
    config.link_mode = "wan";
  }
  return config;
}

}  // namespace

void AgentSettings::Load() {
  const utils::MutexLock saving(saving_);
  utils::RemoveLeftovers(file_.parent_path());
  LoadOnce();
}

void AgentSettings::LoadOnce() {
  if (loaded_) return;
  std::error_code error;
  const auto text = utils::ReadSmallFile(file_, kMaxFileBytes);
  // One that cannot be read for a moment is not to be replaced by defaults.
  loaded_ = text || !fs::exists(file_, error);
  if (!text) {
    if (!loaded_) VLOG_ERROR(kTag, "{} cannot be read", file_.string());
    return;
  }
  const json document = json::parse(*text, nullptr, false);
  if (!document.is_object()) {
    VLOG_WARN(kTag, "agent configuration: {} is no JSON object, defaults are used", file_.string());
    PutAside();
    return;
  }
  const utils::MutexLock lock(mutex_);
  config_ = FromJson(document);
}

AgentConfig AgentSettings::Get() const {
  const utils::MutexLock lock(mutex_);
  return config_;
}

void AgentSettings::Change(const std::function<void(AgentConfig& config)>& change) {
  const utils::MutexLock saving(saving_);
  LoadOnce();
  AgentConfig changed = Get();
  change(changed);
  if (changed == Get() && !unsaved_) return;
  if (!loaded_) PutAside();
  {
    const utils::MutexLock lock(mutex_);
    config_ = changed;
  }
  unsaved_ = !Save(changed);
  std::error_code error;
  if (changed.reset) fs::remove(BadFile(), error);  // it may name who used it
}

void AgentSettings::SaveAgain() {
  const utils::MutexLock saving(saving_);
  if (unsaved_) unsaved_ = !Save(Get());
}

/// Somebody wants a change: it is to last, whatever became of the file.
void AgentSettings::PutAside() {
  std::error_code error;
  fs::rename(file_, BadFile(), error);
  if (error) VLOG_ERROR(kTag, "{} cannot be put aside: {}", file_.string(), error.message());
  loaded_ = true;
}

bool AgentSettings::Save(const AgentConfig& config) const {
  std::error_code error = utils::MakeDirectories(file_.parent_path());
  if (!error) fs::permissions(file_.parent_path(), fs::perms::owner_all, error);
  if (!error) error = utils::WriteFileAtomically(file_, ToJson(config).dump() + '\n', kFileMode);
  if (error) VLOG_ERROR(kTag, "{} cannot be written: {}", file_.string(), error.message());
  return !error;
}

}  // namespace varnel::service
