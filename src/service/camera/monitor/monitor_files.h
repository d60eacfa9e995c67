#pragma once

#include <filesystem>
#include <utility>

namespace varnel::service {

struct MonitorPaths {
  std::filesystem::path snapshot = "/tmp/.monitor.jpg";
  std::filesystem::path encrypted = "/tmp/.monitor.enc";
  /// Served to local clients.
  std::filesystem::path web_link = "/home/ruxo/printer_data/camera/monitor.jpg";
};

/// The current picture on disk, and the link by which local clients see it.
class MonitorFiles {
 public:
  explicit MonitorFiles(MonitorPaths paths) : paths_(std::move(paths)) {}

  [[nodiscard]] const MonitorPaths& Paths() const { return paths_; }
  /// Has the link lead to the snapshot. By one thread.
  void Publish();
  /// Removes the link. Any thread.
  void Withdraw() const;
  /// Removes all: no picture of the past looks like one of now. Any thread.
  void Clear() const;

 private:
  [[nodiscard]] bool IsPublished() const;

  const MonitorPaths paths_;
  bool told_ = false;  ///< that the link cannot be made
};

}  // namespace varnel::service
