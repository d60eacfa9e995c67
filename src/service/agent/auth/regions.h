#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

namespace varnel::service {

/// The hosts of one region; empty: the maker has none there.
struct RegionHosts {
  std::string api{};
  std::string account{};
};

/// Where the cloud is.
struct CloudPlaces {
  std::map<std::string, RegionHosts> regions = {{"int", {}}, {"cn", {}}};
  std::string default_region = "int";
  std::string local_server{};  ///< host, and a port after a colon if need be
  /// Files that lead a board to other servers as long as they exist.
  std::filesystem::path preview_marker = "/oem/.preview_server";
  std::filesystem::path local_marker = "/oem/.local_server";
};

/// Whether the board talks to a server beside it instead of the maker's.
[[nodiscard]] bool IsLocalMode(const CloudPlaces& places);

/// Whether a region is in the table: it has a host, or the board talks to one beside it.
[[nodiscard]] bool IsRegion(const CloudPlaces& places, const std::string& region);

/// Scheme and host of a region's API. Nothing for a region without one: it is not in the table.
[[nodiscard]] std::optional<std::string> BaseUrl(const CloudPlaces& places,
                                                 const std::string& region);

/// What the header "X-Custom-CS" says of a base URL: "pre" or "prod", "-", and "com", "cn" or
/// "other" after the end of its host.
[[nodiscard]] std::string SiteOf(const std::string& base_url);

}  // namespace varnel::service
