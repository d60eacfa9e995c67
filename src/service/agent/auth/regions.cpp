#include "service/agent/auth/regions.h"

#include <string_view>
#include <system_error>

namespace varnel::service {
namespace {

bool Exists(const std::filesystem::path& file) {
  std::error_code error;
  return std::filesystem::exists(file, error);
}

std::string_view HostOf(std::string_view url) {
  if (const size_t scheme = url.find("://"); scheme != url.npos) url.remove_prefix(scheme + 3);
  return url.substr(0, url.find_first_of(":/?"));
}

}  // namespace

bool IsLocalMode(const CloudPlaces& places) {
  return Exists(places.local_marker);
}

bool IsRegion(const CloudPlaces& places, const std::string& region) {
  return BaseUrl(places, region).has_value();
}

std::optional<std::string> BaseUrl(const CloudPlaces& places, const std::string& region) {
  const auto found = places.regions.find(region);
  if (found == places.regions.end()) return std::nullopt;
  if (IsLocalMode(places)) {
    return places.local_server.empty() ? std::nullopt
                                       : std::optional("http://" + places.local_server);
  }
  if (found->second.api.empty()) return std::nullopt;
  return (Exists(places.preview_marker) ? "https://pre." : "https://") + found->second.api;
}

std::string SiteOf(const std::string& base_url) {
  const std::string_view host = HostOf(base_url);
  const char* ending = host.ends_with(".com") ? "com" : host.ends_with(".cn") ? "cn" : "other";
  return std::string(host.starts_with("pre.") ? "pre-" : "prod-") + ending;
}

}  // namespace varnel::service
