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

/// Begins a name that is no index. A work directory that has it is as good as gone.
inline constexpr const char* kDeletedPrefix = ".deleted_";

inline constexpr const char* kWebUrl = "/files/camera/";

/// Names of a finished film's links in the web directory.
inline std::string VideoLinkName(const std::string& index) {
  return "timelapse_" + index + ".mp4";
}
inline std::string ThumbnailLinkName(const std::string& index) {
  return "thumbnail_" + index + ".jpg";
}

}  // namespace varnel::service
