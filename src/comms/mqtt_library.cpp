#include "comms/mqtt_library.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>

#include "utils/descriptor_path.h"
#include "utils/log.h"

namespace varnel::comms {
namespace {

/// The version as one number that compares; what cannot be read counts as 0.
int VersionNumber(const std::string& version) {
  std::array<int, 3> parts{};
  const char* at = version.data();
  const char* const end = at + version.size();
  for (int& part : parts) {
    const auto [next, error] = std::from_chars(at, end, part);
    if (error != std::errc{}) break;
    at = next == end ? end : next + 1;
  }
  return (parts[0] * 1000 + parts[1]) * 1000 + parts[2];
}

std::optional<int> ParseNumber(const std::string& text) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<int> PeerPort(int fd) {
  sockaddr_storage peer{};
  socklen_t length = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return std::nullopt;
  if (peer.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&peer)->sin_port);
  if (peer.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&peer)->sin6_port);
  return std::nullopt;
}

}  // namespace

void IgnoreProxies() {
  for (const char* name : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY"})
    unsetenv(name);
}

int LogTlsError(const char* text, size_t length, void* /*context*/) {
  std::string_view line(text, length);
  while (line.ends_with('\n')) line.remove_suffix(1);
  VLOG_ERROR("MQTT", "TLS: {}", line);
  return 1;  // go on to the next line
}

std::string ServerUri(const MqttConnectSettings& settings, const std::string& library_version) {
  constexpr int kNewSchemes = 1'003'011;
  const bool new_schemes = VersionNumber(library_version) >= kNewSchemes;
  const char* plain = new_schemes ? "mqtt://" : "tcp://";
  const char* secure = new_schemes ? "mqtts://" : "ssl://";
  return (settings.Secure() ? secure : plain) + settings.host + ":" + settings.port;
}

void SetNoDelayTowards(const std::string& port) {
  const std::optional<int> wanted = ParseNumber(port);
  if (!wanted) return;
  std::error_code error;
  std::filesystem::directory_iterator descriptors(utils::kDescriptors, error);
  for (; !error && descriptors != std::filesystem::directory_iterator();
       descriptors.increment(error)) {
    const std::optional<int> fd = ParseNumber(descriptors->path().filename().string());
    if (!fd || PeerPort(*fd) != wanted) continue;
    const int on = 1;
    setsockopt(*fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }
}

}  // namespace varnel::comms
