#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace varnel::utils {

/// Where the maker's cloud is; without a host a region has none.
struct CloudDeployment {
  std::string int_api_host;
  std::string int_account_host;
  std::string cn_api_host;
  std::string cn_account_host;
  std::string local_server;  ///< of a board that talks to a server beside it; may have a port
  std::string default_region = "int";
  std::string country_code_path;    ///< of the API; empty: it is never asked for
  std::string client_log_path;      ///< of the API; empty: failures are only logged here
  std::string credential_key_file;  ///< of what the API encrypts for the device; empty: no key
  bool allow_clear_credentials = false;
  uint64_t disconnected_code = 401;  ///< of a reply: the server takes the device for disconnected
};

/// How pictures of who watches the print are encrypted.
struct MonitorDeployment {
  bool fixed_password = false;   ///< one for ever, made by the device itself
  uint64_t iterations = 10'000;  ///< of PBKDF2, for passwords that are not fixed
};

/// What is collected for diagnosis besides what every board has. Hosts that are empty are not
/// tried.
struct DiagnosticsDeployment {
  std::string dns_server;
  std::vector<std::string> store_hosts;
  nlohmann::json items = nlohmann::json::array();  ///< objects; judged when they are collected
  bool encrypt_exports = true;                     ///< onto drives
};

/// What the maker chooses at deployment. Every value has a working default.
struct Deployment {
  /// Frames, archives and downloads fail below this much free space; 0 switches the check off.
  uint64_t min_free_space_mib = 64;
  /// Where clients may have files written besides inserted drives; empty: nowhere else.
  std::vector<std::filesystem::path> client_write_directories = {"/userdata", "/tmp"};
  /// Where the board's identity block lies: a file or block device, and the first byte in it.
  std::string identity_device = "/dev/mmcblk0";
  uint64_t identity_offset = 26'624;
  /// The key of an encrypted identity block; empty: there is none.
  std::string identity_key_file;
  /// Public key (Ed25519, PEM) of whoever signs firmware; empty: it is not signed.
  std::string firmware_key_file;
  CloudDeployment cloud;
  MonitorDeployment monitor;
  DiagnosticsDeployment diagnostics;
};

/// Reads the file once at start. A missing file means defaults; a broken one or one over 1 MiB the
/// same with a warning. An unknown key or a wrong value is warned about by its path, and that key
/// keeps its default.
[[nodiscard]] Deployment LoadDeployment(const std::filesystem::path& file);

}  // namespace varnel::utils
