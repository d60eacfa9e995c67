#pragma once

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel::utils {

/// Another file system begins at this directory.
[[nodiscard]] bool IsMountPoint(const std::filesystem::path& directory);

struct ClientPathRules {
  /// A "*" at the end stands for any ending of that one name.
  std::vector<std::filesystem::path> forbidden = {
      "/etc", "/usr", "/bin", "/sbin", "/lib*", "/boot", "/dev", "/proc", "/sys", "/run", "/oem",
      "/root", "/var", "/opt",
      // What the printer's other programs are made of: scripts, their settings, hidden files.
      "/home/ruxo/bin", "/home/ruxo/.*", "/home/ruxo/printer_data/config"};
  /// varnel's own files and directories.
  std::vector<std::filesystem::path> own_state = {"/userdata/.tmp_timelapse",
                                                  "/userdata/.tmp_detect_result",
                                                  "/userdata/.tmp",
                                                  "/home/ruxo/printer_data/logs",
                                                  "/home/ruxo/printer_data/varnel",
                                                  "/tmp/.serial_number",
                                                  "/tmp/.product_code",
                                                  "/tmp/.version",
                                                  "/tmp/.fullversion",
                                                  "/tmp/.capture.bin",
                                                  "/tmp/printer_detection.jpg"};
  /// Deployment::client_write_directories; empty allows whatever is not forbidden.
  std::vector<std::filesystem::path> allowed;
  /// Tells whether a drive is still mounted there.
  bool (*is_mount_point)(const std::filesystem::path& directory) = IsMountPoint;
};

/// Decides which files a client may name. Thread-safe.
class ClientPathPolicy {
 public:
  explicit ClientPathPolicy(ClientPathRules rules = {});

  /// The file that the client means, its directory with all links resolved; nothing when it is not
  /// allowed, the directory does not exist, or something other than a regular file has that name.
  [[nodiscard]] std::optional<std::filesystem::path> Resolve(const std::string& client_path) const;

  /// The directory of an inserted drive: allowed whatever the rules say, as long as a drive is
  /// mounted there. A path that is not absolute, or the root itself, is ignored.
  void AllowDirectory(const std::filesystem::path& directory);

 private:
  bool IsAllowed(const std::filesystem::path& target) const;
  bool IsOnDrive(const std::filesystem::path& target) const;

  const ClientPathRules rules_;
  mutable std::mutex mutex_;
  std::vector<std::filesystem::path> drives_;  // mutex_
};

}  // namespace varnel::utils
