#include "service/camera/monitor/monitor_password.h"

#include <fmt/format.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/random_password.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "MON";
constexpr size_t kPasswordBytes = 16;
constexpr size_t kSaltBytes = 8;
constexpr size_t kFileBytes = 2 * kPasswordBytes + 1 + 2 * kSaltBytes + 1;

bool IsHex(std::string_view text) {
  return text.find_first_not_of("0123456789abcdef") == text.npos;
}

/// The password, a blank, the salt, and the line's end.
std::optional<MonitorPassword> Parse(std::string_view line) {
  if (line.size() != kFileBytes) return std::nullopt;
  const std::string_view text = line.substr(0, 2 * kPasswordBytes);
  const std::string salt(line.substr(2 * kPasswordBytes + 1, 2 * kSaltBytes));
  if (!IsHex(text) || !IsHex(salt)) return std::nullopt;
  MonitorPassword password{utils::SecretString(text), {}};
  for (size_t i = 0; i < salt.size(); i += 2)
    password.salt.push_back(static_cast<uint8_t>(std::stoul(salt.substr(i, 2), nullptr, 16)));
  return password;
}

std::optional<MonitorPassword> Read(const fs::path& file) {
  auto line = utils::ReadSmallFile(file, kFileBytes);
  if (!line) return std::nullopt;
  auto password = Parse(*line);
  utils::Wipe(*line);
  return password;
}

std::error_code Write(const fs::path& file, const MonitorPassword& password) {
  if (const auto error = utils::MakeDirectories(file.parent_path())) return error;
  std::string line = fmt::format("{} {:02x}\n", password.text.Text(), fmt::join(password.salt, ""));
  const auto error = utils::WriteFileAtomically(file, line, 0600);
  utils::Wipe(line);
  return error;
}

/// Whoever still needs the old one finds it there.
void PutAside(const fs::path& file) {
  std::error_code error;
  if (fs::symlink_status(file, error).type() == fs::file_type::not_found) return;
  VLOG_WARN(kTag, "{} cannot be read, the device gets another password", file.string());
  fs::rename(file, file.string() + ".bad", error);
}

}  // namespace

std::optional<MonitorPassword> MakeMonitorPassword() {
  std::string text = utils::RandomPassword("hex", kPasswordBytes);
  MonitorPassword password{utils::SecretString(text), std::vector<uint8_t>(kSaltBytes)};
  utils::Wipe(text);
  // Without random bytes it is another text, which everybody knows.
  if (text.size() != 2 * kPasswordBytes) return std::nullopt;
  if (RAND_bytes(password.salt.data(), static_cast<int>(kSaltBytes)) != 1) return std::nullopt;
  return password;
}

std::optional<MonitorPassword> DeviceMonitorPassword(const fs::path& file) {
  if (auto password = Read(file)) return password;
  PutAside(file);
  auto password = MakeMonitorPassword();
  if (!password) return std::nullopt;
  if (const auto error = Write(file, *password)) {
    VLOG_ERROR(kTag, "{} cannot be written: {}", file.string(), error.message());
    return std::nullopt;
  }
  return password;
}

}  // namespace varnel::service
