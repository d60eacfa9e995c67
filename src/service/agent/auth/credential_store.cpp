#include "service/agent/auth/credential_store.h"

#include <chrono>
#include <system_error>

#include "service/agent/auth/certificate.h"
#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/temporary_name.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "MA_AUTH";
constexpr size_t kMaxFileBytes = size_t{1} << 20U;
constexpr mode_t kFileMode = 0600;
constexpr std::chrono::sys_days kBuildDay{std::chrono::days(VARNEL_BUILD_DAY)};

std::string ContentOf(const fs::path& file) {
  return utils::ReadSmallFile(file, kMaxFileBytes).value_or("");
}

/// Whether it is there and was removed; `failure` gets what went wrong.
bool RemoveFile(const fs::path& file, std::error_code& failure) {
  std::error_code error;
  const bool removed = fs::remove(file, error);
  if (error) failure = error;
  return removed;
}

}  // namespace

bool IsClockSet(const utils::Clock& clock) {
  return clock.WallNow() >= kBuildDay;
}

CredentialStore::CredentialStore(fs::path directory, utils::Clock& clock)
    : directory_(std::move(directory)), clock_(clock) {
  utils::RemoveLeftovers(directory_);  // of a key that a kill cut short
}

bool CredentialStore::MakeDirectory() const {
  std::error_code error = utils::MakeDirectories(directory_);
  if (!error) fs::permissions(directory_, fs::perms::owner_all, error);
  if (error) VLOG_ERROR(kTag, "{} cannot be made: {}", directory_.string(), error.message());
  return !error;
}

bool CredentialStore::Write(const fs::path& file, std::string_view content) const {
  const std::error_code error = utils::WriteFileAtomically(file, content, kFileMode);
  if (error) VLOG_ERROR(kTag, "{} cannot be written: {}", file.string(), error.message());
  return !error;
}

json CredentialStore::WithPaths(json info) const {
  info["client_cert"] = Certificate().string();
  info["client_key"] = Key().string();
  info["root_ca"] = RootCa().string();
  return info;
}

bool CredentialStore::WriteAll(const BrokerAccess& access) const {
  std::error_code error;
  fs::remove(Cache(), error);
  if (!error && fs::exists(directory_, error)) error = utils::SyncDirectory(directory_);
  if (error) {
    VLOG_ERROR(kTag, "{} cannot be removed: {}", Cache().string(), error.message());
    return false;
  }
  return MakeDirectory() && Write(Certificate(), access.certificate) &&
         Write(Key(), access.key.Text()) && Write(RootCa(), access.root_ca);
}

std::optional<json> CredentialStore::Save(const BrokerAccess& access) const {
  if (!WriteAll(access)) {
    Remove();  // some of it may be there
    return std::nullopt;
  }
  return WithPaths({{"endpoint", access.endpoint},
                    {"port", std::to_string(access.port)},
                    {"clientid", access.client_id}});
}

void CredentialStore::SaveAuthInfoToCache(const json& info, const CredentialSource& source) const {
  json cached = info;
  cached["_region"] = source.region;
  cached["_server"] = source.server;
  const std::error_code error =
      utils::WriteFileAtomically(Cache(), cached.dump() + '\n', kFileMode);
  if (!error) {
    VLOG_INFO(kTag, "Auth info cached to {}", Cache().string());
  } else if (error == std::errc::no_space_on_device || error == std::errc::io_error) {
    VLOG_ERROR(kTag, "SaveAuthInfoToCache error: {}", error.message());
  } else {
    VLOG_ERROR(kTag, "SaveAuthInfoToCache: cannot open cache file");
  }
}

std::optional<json> CredentialStore::LoadAuthInfoFromCache(const CredentialSource& source) const {
  std::error_code error;
  if (!fs::exists(Cache(), error)) {
    VLOG_INFO(kTag, "No cached auth info at {}", Cache().string());
    return std::nullopt;
  }
  const json cached = json::parse(ContentOf(Cache()), nullptr, false);
  const auto text = [&](const char* name) {
    const auto found = cached.find(name);
    return found != cached.end() && found->is_string() ? found->get<std::string>() : std::string();
  };
  if (!cached.is_object()) {
    VLOG_ERROR(kTag, "LoadAuthInfoFromCache error: {}", "it is no JSON object");
    return std::nullopt;
  }
  for (const auto& [name, now] :
       {std::pair("_region", &source.region), {"_server", &source.server}}) {
    if (text(name) == *now) continue;
    VLOG_WARN(kTag, "Cached auth info region mismatch (cached={}, current={}), ignoring cache",
              utils::LogText(text(name)), utils::LogText(*now));
    return std::nullopt;
  }
  json info = WithPaths(
      {{"endpoint", text("endpoint")}, {"port", text("port")}, {"clientid", text("clientid")}});
  for (const auto& [name, value] : info.items()) {
    if (!value.get_ref<const std::string&>().empty()) continue;
    VLOG_ERROR(kTag, "LoadAuthInfoFromCache error: {}", "\"" + name + "\" is missing");
    return std::nullopt;
  }
  if (!KeyMatches(ContentOf(Certificate()), ContentOf(Key())) ||
      !IsCertificate(ContentOf(RootCa()))) {
    VLOG_ERROR(kTag, "LoadAuthInfoFromCache error: {}",
               "key and certificates do not belong together");
    return std::nullopt;
  }
  VLOG_INFO(kTag, "Auth info loaded from cache");
  return info;
}

void CredentialStore::Remove() const {
  std::error_code error;
  utils::RemoveLeftovers(directory_);
  // The cache first: without it nobody takes the rest for whole.
  const bool cache = RemoveFile(Cache(), error);
  const bool certificate = RemoveFile(Certificate(), error);
  const bool root_ca = RemoveFile(RootCa(), error);
  const bool key = RemoveFile(Key(), error);
  if (root_ca) VLOG_INFO(kTag, "Removed client CA certificate");
  if (key) VLOG_INFO(kTag, "Removed client key");
  if (cache) VLOG_INFO(kTag, "Removed cached auth info");
  const bool any = cache || certificate || root_ca || key;
  if (any && !error) error = utils::SyncDirectory(directory_);
  if (error) {
    VLOG_ERROR(kTag, "Failed to remove client certificates: {}", error.message());
  } else if (any) {
    VLOG_INFO(kTag, "Client certificates removed successfully");
  } else {
    VLOG_INFO(kTag, "No client certificates found to remove");
  }
}

bool CredentialStore::CheckCertExpired() const {
  const auto certificate = utils::ReadSmallFile(Certificate(), kMaxFileBytes);
  if (!certificate) {
    VLOG_ERROR(kTag, "CheckCertExpired: cannot open cert file");
    return true;
  }
  if (!IsCertificate(*certificate)) {
    VLOG_ERROR(kTag, "CheckCertExpired: failed to parse PEM certificate");
    return true;
  }
  const auto now = clock_.WallNow();
  const auto life = LifeOf(*certificate, now);
  if (!life) {
    VLOG_ERROR(kTag, "CheckCertExpired: no NotAfter in certificate");
    return true;
  }
  if (!IsClockSet(clock_)) {
    if (!unset_clock_told_.exchange(true))
      VLOG_WARN(kTag, "The clock is not set yet: the client certificate's end is not judged");
    return false;
  }
  if (life->IsOver()) {
    VLOG_WARN(kTag, "Client certificate has expired ({}d {}s remaining)", life->days,
              life->seconds);
    return true;
  }
  VLOG_INFO(kTag, "Client certificate valid for {}d {}s", life->days, life->seconds);
  return false;
}

}  // namespace varnel::service
