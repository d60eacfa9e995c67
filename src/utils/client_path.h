#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "utils/held_directory.h"
#include "utils/reported_drives.h"

namespace varnel::utils {

/// In all lists a "*" at the end of a name stands for any ending of that one name. A directory
/// means everything below it.
struct ClientPathRules {
  std::vector<std::filesystem::path> forbidden = {
      "/etc", "/usr", "/bin", "/sbin", "/lib*", "/boot", "/dev", "/proc", "/sys", "/run", "/oem",
      "/root", "/var", "/opt",
      // What the printer's other programs are made of, whatever the maker opens around it: scripts,
      // programs, settings, data, hidden files.
      "/home/ruxo/bin", "/home/ruxo/.*", "/home/ruxo/klipper*", "/home/ruxo/moonraker*",
      "/home/ruxo/fluidd*", "/home/ruxo/printer_data/config", "/home/ruxo/printer_data/database"};
  /// varnel's own files and directories.
  std::vector<std::filesystem::path> own_places = {};
  /// Where clients may have files written besides the drives: Deployment::client_write_directories.
  std::vector<std::filesystem::path> allowed = {};
};

/// Decides which files a client may have written. Thread-safe.
class ClientPathPolicy {
 public:
  explicit ClientPathPolicy(ClientPathRules rules, std::shared_ptr<const ReportedDrives> drives =
                                                       std::make_shared<ReportedDrives>());

  /// The file that the client means. Its directory is held, so that it stays the one that was
  /// judged, with all links resolved. Nothing when it is not allowed, the directory does not exist,
  /// or something other than a regular file has that name.
  [[nodiscard]] std::optional<FilePlace> Resolve(const std::string& client_path) const;

 private:
  bool IsAllowed(const FilePlace& place) const;

  const ClientPathRules rules_;
  const std::shared_ptr<const ReportedDrives> drives_;
};

}  // namespace varnel::utils
