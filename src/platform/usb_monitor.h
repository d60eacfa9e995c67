#pragma once

#include <libudev.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hal_interface/hal_register.h"
#include "utils/owned.h"

namespace varnel::platform {

struct UsbMonitorBoard {
  std::filesystem::path mounts = "/proc/mounts";
  /// How long one wait for a device event lasts.
  std::chrono::milliseconds event_wait = std::chrono::seconds(60);
  /// The system mounts a drive some time after it has been announced.
  int mount_tries = 10;
  std::chrono::milliseconds mount_pause{500};
  /// After a wait that fails or promises an event and gives none.
  std::chrono::milliseconds failure_pause = std::chrono::seconds(1);
  std::function<hal_adapter::HalStatus(const hal_adapter::HalEventRecord*)> post =
      hal_adapter::post_hal_event;
};

/// Posts HAL_EVENT_SYS_USB_DRIVE_INSERT with the mount directory of every USB drive that is plugged
/// in while it lives, and HAL_EVENT_SYS_USB_DRIVE_PRESENT for those that were there before, or that
/// are mounted too late to be taken for an insertion: a minute later at most. Without libudev it is
/// inert: that is logged and not tried again.
class USBMonitor {
 public:
  explicit USBMonitor(UsbMonitorBoard board);
  /// Ends the thread at once, whatever it is waiting for.
  ~USBMonitor();
  USBMonitor(const USBMonitor&) = delete;
  USBMonitor& operator=(const USBMonitor&) = delete;

  /// Creates the process's monitor; does nothing while there is one.
  static void Start(UsbMonitorBoard board = {});
  /// Ends and deletes it; the next Start() creates another.
  static void Stop();

 private:
  using Context = utils::Owned<udev, udev_unref>;
  using Monitor = utils::Owned<udev_monitor, udev_monitor_unref>;

  bool SetUp();
  void Run();
  bool WaitForEvent();
  void ReceiveEvent();
  void ReportFailure(const char* what, int error);
  void HandleEvent(udev_device* device);
  void AnnouncePresentDrives();
  void AnnounceMounted();
  std::vector<std::string> PresentDrives() const;
  bool Announce(hal_adapter::HalEventType type, const std::string& directory);
  std::optional<std::string> AwaitMount(const std::string& node);
  std::optional<std::string> MountDirectory(const std::string& node) const;
  void Pause(std::chrono::milliseconds time);

  const UsbMonitorBoard board_;
  Context context_;
  Monitor monitor_;
  utils::UniqueFd stop_event_;  // readable from the moment the monitor is to end
  std::atomic<bool> running_{true};
  bool failing_ = false;                  // of the thread: reported already
  std::vector<std::string> unannounced_;  // of the thread: drives that are there, by their nodes
  std::jthread thread_;
};

}  // namespace varnel::platform
