#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace varnel::service {

/// Where time-lapses live, and the programs that make their films.
struct TimelapsePaths {
  std::filesystem::path root = "/userdata/.tmp_timelapse";
  /// Served to local clients under kWebUrl.
  std::filesystem::path web = "/home/ruxo/printer_data/camera";
  /// Encrypted files on their way to the cloud.
  std::filesystem::path upload = "/userdata/.tmp";
  std::string ffmpeg = "/usr/bin/ffmpeg";
  std::string ffprobe = "/usr/bin/ffprobe";
  // Generous: the encoder yields to everything else on the board.
  uint32_t frame_limit_ms = 120'000;  ///< for one photo, then it is killed
  uint32_t join_limit_ms = 300'000;   ///< for joining and for checking, besides the frames' share

  std::filesystem::path Description() const { return root / "timelapse.json"; }
  std::filesystem::path Lock() const { return root / ".lock"; }
  std::filesystem::path Current() const { return root / "current"; }
  std::filesystem::path NextIndex() const { return root / "index_next"; }
};

inline constexpr const char* kWebUrl = "/files/camera/";

/// Names of a finished film's links in the web directory.
inline std::string VideoLinkName(const std::string& index) {
  return "timelapse_" + index + ".mp4";
}
inline std::string ThumbnailLinkName(const std::string& index) {
  return "thumbnail_" + index + ".jpg";
}

}  // namespace varnel::service
