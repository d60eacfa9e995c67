#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace varnel::service {

/// Where time-lapses live.
struct TimelapsePaths {
  std::filesystem::path root = "/userdata/.tmp_timelapse";
  /// Served to local clients under kWebUrl.
  std::filesystem::path web = "/home/ruxo/printer_data/camera";
  /// Encrypted files on their way to the cloud.
  std::filesystem::path upload = "/userdata/.tmp";
  uint64_t min_free_bytes = 0;  ///< that time-lapses must leave to the printer; 0: any

  std::filesystem::path Description() const { return root / "timelapse.json"; }
  std::filesystem::path Lock() const { return root / ".lock"; }
  std::filesystem::path Current() const { return root / "current"; }
  std::filesystem::path NextIndex() const { return root / "index_next"; }
};

/// Begin names that are no index: of a directory that is being made, of one whose film is being
/// deleted, and of one that is only still to be removed.
inline constexpr const char* kBuildingPrefix = ".new_";
inline constexpr const char* kDeletedPrefix = ".deleted_";
inline constexpr const char* kRemovedPrefix = ".removed_";

inline constexpr const char* kWebUrl = "/files/camera/";

/// Names of a finished film's links in the web directory.
inline std::string VideoLinkName(const std::string& index) {
  return "timelapse_" + index + ".mp4";
}
inline std::string ThumbnailLinkName(const std::string& index) {
  return "thumbnail_" + index + ".jpg";
}

}  // namespace varnel::service
