#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace varnel::board {

/// How a drive shows up.
struct PlugOptions {
  bool usb = true;  ///< false: an internal disk
  std::vector<std::string> actions = {"add", "change"};
  std::filesystem::path mount = "/mnt/udisk";  ///< empty: the system does not mount it
  std::chrono::milliseconds mount_after{0};    ///< after the messages; 0: before them
  size_t size_mib = 8;
  std::string fill;  ///< a shell command, run in its top directory once it is mounted
};

/// A disk with one partition that comes and goes on the board in which this program runs as root.
/// Its content lives in memory while it is mounted.
class Drive {
 public:
  /// "sda" for /dev/sda. Throws std::invalid_argument for what is no such name.
  explicit Drive(const std::string& name);

  /// Both throw std::runtime_error.
  void Plug(const PlugOptions& options) const;
  /// Pulls it out, whether its files are in use or not.
  void Unplug() const;

 private:
  [[nodiscard]] std::filesystem::path Device(bool usb) const;
  [[nodiscard]] std::filesystem::path Disk(bool usb) const;
  /// Where whoever lists all disks finds it.
  [[nodiscard]] std::filesystem::path Listed() const;
  [[nodiscard]] std::string Partition() const { return "/dev/" + name_ + "1"; }
  void MakeTree(bool usb) const;
  void Mount(const PlugOptions& options) const;
  static void Fill(const PlugOptions& options);
  [[nodiscard]] std::vector<std::string> MountDirectories() const;
  void Announce(const std::string& action, bool usb) const;

  std::string name_;
};

}  // namespace varnel::board
