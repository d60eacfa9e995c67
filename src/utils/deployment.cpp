#include "utils/deployment.h"

#include <array>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "MAIN";
constexpr size_t kMaxFileBytes = size_t{1} << 20U;

template <class Value>
Value& At(Deployment& deployment, Value Deployment::*member) {
  return deployment.*member;
}

template <class Value>
Value& At(Deployment& deployment, Value CloudDeployment::*member) {
  return deployment.cloud.*member;
}

template <class Value>
Value& At(Deployment& deployment, Value MonitorDeployment::*member) {
  return deployment.monitor.*member;
}

template <class Value>
Value& At(Deployment& deployment, Value DiagnosticsDeployment::*member) {
  return deployment.diagnostics.*member;
}

template <auto Member, uint64_t Min, uint64_t Max>
bool ReadNumber(const json& value, Deployment& deployment) {
  if (!value.is_number_unsigned()) {
    return false;
  }
  const auto number = value.get<uint64_t>();
  if (number < Min || number > Max) {
    return false;
  }
  At(deployment, Member) = number;
  return true;
}

bool IsAbsolutePath(const json& value) {
  if (!value.is_string()) {
    return false;
  }
  const auto& text = value.get_ref<const std::string&>();
  return text.starts_with('/') && text.find('\0') == std::string::npos;
}

template <auto Member, bool MayBeEmpty>
bool ReadPath(const json& value, Deployment& deployment) {
  const bool none = MayBeEmpty && value.is_string() && value.get_ref<const std::string&>().empty();
  if (!none && !IsAbsolutePath(value)) {
    return false;
  }
  At(deployment, Member) = value.get_ref<const std::string&>();
  return true;
}

/// Nothing but these characters; may be empty.
bool HasOnly(const json& value, std::string_view characters) {
  return value.is_string() &&
         value.get_ref<const std::string&>().find_first_not_of(characters) == std::string::npos;
}

constexpr std::string_view kHostCharacters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-";

/// No program takes it for an option.
bool IsHost(const json& value) {
  return HasOnly(value, kHostCharacters) && !value.get_ref<const std::string&>().starts_with('-');
}

template <auto Member>
bool ReadHost(const json& value, Deployment& deployment) {
  if (!IsHost(value)) return false;
  At(deployment, Member) = value.get_ref<const std::string&>();
  return true;
}

template <auto Member>
bool ReadHosts(const json& value, Deployment& deployment) {
  if (!value.is_array()) return false;
  std::vector<std::string> hosts;
  for (const json& host : value) {
    if (!IsHost(host)) return false;
    hosts.push_back(host.get<std::string>());
  }
  At(deployment, Member) = std::move(hosts);
  return true;
}

template <auto Member>
bool ReadObjects(const json& value, Deployment& deployment) {
  if (!value.is_array()) return false;
  for (const json& object : value)
    if (!object.is_object()) return false;
  At(deployment, Member) = value;
  return true;
}

template <auto Member>
bool ReadHostWithPort(const json& value, Deployment& deployment) {
  if (!HasOnly(value, std::string(kHostCharacters) + ":[]")) return false;
  At(deployment, Member) = value.get_ref<const std::string&>();
  return true;
}

template <auto Member>
bool ReadUrlPath(const json& value, Deployment& deployment) {
  if (!HasOnly(value, std::string(kHostCharacters) + "/_~")) return false;
  const auto& path = value.get_ref<const std::string&>();
  if (!path.empty() && !path.starts_with('/')) return false;
  At(deployment, Member) = path;
  return true;
}

template <auto Member>
bool ReadRegion(const json& value, Deployment& deployment) {
  if (value != "int" && value != "cn") return false;
  At(deployment, Member) = value.get_ref<const std::string&>();
  return true;
}

template <auto Member>
bool ReadSwitch(const json& value, Deployment& deployment) {
  if (!value.is_boolean()) return false;
  At(deployment, Member) = value.get<bool>();
  return true;
}

template <auto Member>
bool ReadDirectories(const json& value, Deployment& deployment) {
  if (!value.is_array()) {
    return false;
  }
  std::vector<fs::path> directories;
  for (const json& element : value) {
    if (!IsAbsolutePath(element)) {
      return false;
    }
    directories.emplace_back(element.get_ref<const std::string&>());
  }
  deployment.*Member = std::move(directories);
  return true;
}

struct Key {
  std::string_view path;  ///< the names of nested objects are joined by dots
  bool (*read)(const json& value, Deployment& deployment);
  const char* expected;
};

// clang-format off
constexpr std::array kKeys = {
    Key{"min_free_space_mib", ReadNumber<&Deployment::min_free_space_mib, 0, 1'048'576>, "a whole number from 0 to 1048576"},
    Key{"client_write_directories", ReadDirectories<&Deployment::client_write_directories>, "a list of absolute paths"},
    Key{"identity.device", ReadPath<&Deployment::identity_device, false>, "an absolute path"},
    Key{"identity.offset", ReadNumber<&Deployment::identity_offset, 0, 1'099'511'627'776>, "a whole number from 0 to 1099511627776"},
    Key{"identity.key_file", ReadPath<&Deployment::identity_key_file, true>, "an absolute path or empty"},
    Key{"firmware.key_file", ReadPath<&Deployment::firmware_key_file, true>, "an absolute path or empty"},
    Key{"cloud.regions.int.api_host", ReadHost<&CloudDeployment::int_api_host>, "a host name or empty"},
    Key{"cloud.regions.int.account_host", ReadHost<&CloudDeployment::int_account_host>, "a host name or empty"},
    Key{"cloud.regions.cn.api_host", ReadHost<&CloudDeployment::cn_api_host>, "a host name or empty"},
    Key{"cloud.regions.cn.account_host", ReadHost<&CloudDeployment::cn_account_host>, "a host name or empty"},
    Key{"cloud.local_server", ReadHostWithPort<&CloudDeployment::local_server>, "a host, and a port after a colon if need be"},
    Key{"cloud.default_region", ReadRegion<&CloudDeployment::default_region>, "\"int\" or \"cn\""},
    Key{"cloud.country_code_path", ReadUrlPath<&CloudDeployment::country_code_path>, "a path of the API or empty"},
    Key{"cloud.client_log_path", ReadUrlPath<&CloudDeployment::client_log_path>, "a path of the API or empty"},
    Key{"cloud.credential_key_file", ReadPath<&CloudDeployment::credential_key_file, true>, "an absolute path or empty"},
    Key{"cloud.allow_clear_credentials", ReadSwitch<&CloudDeployment::allow_clear_credentials>, "true or false"},
    Key{"cloud.disconnected_code", ReadNumber<&CloudDeployment::disconnected_code, 0, 999'999>, "a whole number from 0 to 999999"},
    Key{"monitor.fixed_password", ReadSwitch<&MonitorDeployment::fixed_password>, "true or false"},
    Key{"monitor.iterations", ReadNumber<&MonitorDeployment::iterations, 1'000, 10'000'000>, "a whole number from 1000 to 10000000"},
    Key{"diagnostics.dns_server", ReadHost<&DiagnosticsDeployment::dns_server>, "a host name, an address or empty"},
    Key{"diagnostics.store_hosts", ReadHosts<&DiagnosticsDeployment::store_hosts>, "a list of host names"},
    Key{"diagnostics.items", ReadObjects<&DiagnosticsDeployment::items>, "a list of objects"},
    Key{"diagnostics.encrypt_exports", ReadSwitch<&DiagnosticsDeployment::encrypt_exports>, "true or false"},
};
// clang-format on

const Key* FindKey(std::string_view path) {
  for (const Key& key : kKeys) {
    if (key.path == path) {
      return &key;
    }
  }
  return nullptr;
}

bool IsGroup(const std::string& path) {
  for (const Key& key : kKeys) {
    if (key.path.starts_with(path + ".")) {
      return true;
    }
  }
  return false;
}

void Ignore(const std::string& path, const std::string& why) {
  VLOG_WARN(kTag, "deployment settings: {} {}, the default is used", LogText(path), why);
}

/// `prefix` is the path of the object with a dot, or empty. The depth is that of the table, not of
/// the file.
void ReadObject(const json& object, const std::string& prefix, Deployment& deployment) {
  for (const auto& [name, value] : object.items()) {
    const std::string path = prefix + name;
    if (const Key* key = FindKey(path); key != nullptr) {
      if (!key->read(value, deployment)) {
        Ignore(path, std::string("must be ") + key->expected);
      }
    } else if (!IsGroup(path)) {
      VLOG_WARN(kTag, "deployment settings: unknown key {}, it is ignored", LogText(path));
    } else if (!value.is_object()) {
      Ignore(path, "must be an object");
    } else {
      ReadObject(value, path + ".", deployment);
    }
  }
}

/// Absent when there is nothing to read; what is wrong has been logged.
std::optional<json> ReadSettings(const fs::path& file) {
  std::error_code error;
  if (fs::symlink_status(file, error).type() == fs::file_type::not_found) {
    return std::nullopt;
  }
  const std::optional<std::string> text = ReadSmallFile(file, kMaxFileBytes);
  if (!text) {
    VLOG_WARN(kTag, "deployment settings: {} cannot be read or is over 1 MiB, defaults are used",
              file.string());
    return std::nullopt;
  }
  json settings = json::parse(*text, nullptr, false);
  if (!settings.is_object()) {
    VLOG_WARN(kTag, "deployment settings: {} is no JSON object, defaults are used", file.string());
    return std::nullopt;
  }
  return settings;
}

void WarnOfOpenKey(const char* key, const std::string& file) {
  if (file.empty()) return;
  std::error_code error;
  const fs::perms modes = fs::status(file, error).permissions();
  if (!error && (modes & fs::perms::others_read) != fs::perms::none) {
    VLOG_WARN(kTag, "deployment settings: {} {} is readable by everyone", key, LogText(file));
  }
}

}  // namespace

Deployment LoadDeployment(const fs::path& file) {
  Deployment deployment;
  if (const std::optional<json> settings = ReadSettings(file)) {
    ReadObject(*settings, "", deployment);
  }
  WarnOfOpenKey("identity.key_file", deployment.identity_key_file);
  WarnOfOpenKey("cloud.credential_key_file", deployment.cloud.credential_key_file);
  return deployment;
}

}  // namespace varnel::utils
