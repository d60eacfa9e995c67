#include "platform/usb_monitor.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/copy_text.h"
#include "platform/mount_table.h"
#include "utils/atomic_file.h"
#include "utils/log_printf.h"
#include "utils/log_text.h"
#include "utils/mutex.h"
#include "utils/thread.h"

namespace varnel::platform {
namespace {

constexpr const char* kTag = "IMSYSUSBM";
constexpr const char* kSubsystem = "block";
constexpr const char* kDeviceType = "disk";
constexpr size_t kMountTableLimit = size_t{4} << 20;

using Device = utils::Owned<udev_device, udev_device_unref>;
using Enumeration = utils::Owned<udev_enumerate, udev_enumerate_unref>;

struct Singleton {
  utils::Mutex mutex;
  std::unique_ptr<USBMonitor> monitor GUARDED_BY(mutex);
};

Singleton& TheSingleton() {
  static Singleton singleton;
  return singleton;
}

bool Is(const char* text, std::string_view wanted) {
  return text != nullptr && text == wanted;
}

bool IsUsbDisk(udev_device* device) {
  return Is(udev_device_get_devtype(device), kDeviceType) &&
         udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device") != nullptr;
}

}  // namespace

void USBMonitor::Start(UsbMonitorBoard board) {
  Singleton& singleton = TheSingleton();
  const utils::MutexLock lock(singleton.mutex);
  if (!singleton.monitor) singleton.monitor = std::make_unique<USBMonitor>(std::move(board));
}

void USBMonitor::Stop() {
  Singleton& singleton = TheSingleton();
  const utils::MutexLock lock(singleton.mutex);
  singleton.monitor.reset();
}

USBMonitor::USBMonitor(UsbMonitorBoard board) : board_(std::move(board)) {
  if (SetUp()) thread_ = utils::SpawnGuarded("usb-monitor", kTag, [this] { Run(); });
}

USBMonitor::~USBMonitor() {
  running_ = false;
  if (stop_event_) ::eventfd_write(stop_event_.Get(), 1);
  if (thread_.joinable()) thread_.join();
}

bool USBMonitor::SetUp() {
  context_.reset(udev_new());
  if (!context_) {
    PLOG_ERROR(kTag, "Unable to create the udev context");
    return false;
  }
  monitor_.reset(udev_monitor_new_from_netlink(context_.get(), "udev"));
  if (!monitor_) {
    context_.reset();
    PLOG_ERROR(kTag, "Unable to create udev monitor");
    return false;
  }
  stop_event_.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!stop_event_ ||
      udev_monitor_filter_add_match_subsystem_devtype(monitor_.get(), kSubsystem, kDeviceType) <
          0 ||
      udev_monitor_enable_receiving(monitor_.get()) < 0) {
    PLOG_ERROR(kTag, "Unable to receive device events");
    return false;
  }
  return true;
}

void USBMonitor::Run() {
  PLOG_INFO(kTag, "Monitor task start");
  AnnouncePresentDrives();
  while (running_) {
    if (WaitForEvent()) ReceiveEvent();
    AnnounceMounted();
  }
  PLOG_INFO(kTag, "Monitor task end");
}

/// poll, since a descriptor of 1024 or more does not fit into select's set.
bool USBMonitor::WaitForEvent() {
  pollfd watched[] = {{udev_monitor_get_fd(monitor_.get()), POLLIN, 0},
                      {stop_event_.Get(), POLLIN, 0}};
  const int ready = ::poll(watched, 2, static_cast<int>(board_.event_wait.count()));
  const int error = errno;
  PLOG_DEBUG(kTag, "select ret = %d", ready);
  if (ready < 0 && error != EINTR) ReportFailure("Waiting for", error);
  return ready > 0 && watched[0].revents != 0 && running_;
}

void USBMonitor::ReceiveEvent() {
  errno = 0;
  const Device event(udev_monitor_receive_device(monitor_.get()));
  if (!event) {
    ReportFailure("Receiving", errno);
    return;
  }
  failing_ = false;
  HandleEvent(event.get());
}

/// The pause keeps a descriptor that stays readable for ever from taking the processor.
void USBMonitor::ReportFailure(const char* what, int error) {
  const bool spurious = error == 0 || error == EAGAIN || error == EINTR;
  if (!spurious && !std::exchange(failing_, true)) {
    PLOG_WARN(kTag, "%s a device event failed, errno is %d", what, error);
  }
  Pause(board_.failure_pause);
}

void USBMonitor::HandleEvent(udev_device* device) {
  const char* node = udev_device_get_devnode(device);
  const char* action = udev_device_get_action(device);
  if (node == nullptr || action == nullptr) return;
  PLOG_INFO(kTag, "Device event: node: %s, action: %s", node, action);
  if (Is(action, "add") || Is(action, "remove")) std::erase(unannounced_, node);
  if (Is(action, "add") && IsUsbDisk(device)) {
    PLOG_INFO(kTag, "USB drive detected: %s", node);
    const auto directory = AwaitMount(node);
    if (!directory || !Announce(hal_adapter::HAL_EVENT_SYS_USB_DRIVE_INSERT, *directory)) {
      unannounced_.emplace_back(node);
    }
  }
}

/// At boot the system may be about to mount them; card readers without a card it never does.
void USBMonitor::AnnouncePresentDrives() {
  unannounced_ = PresentDrives();
  for (int tries = 0; tries < board_.mount_tries && running_ && !unannounced_.empty(); ++tries) {
    if (tries > 0) Pause(board_.mount_pause);
    AnnounceMounted();
  }
  for (const std::string& node : unannounced_)
    PLOG_INFO(kTag, "Drive %s is not mounted so far, it is looked for again", node.c_str());
}

/// Too late to be taken for an insertion.
void USBMonitor::AnnounceMounted() {
  std::erase_if(unannounced_, [this](const std::string& node) {
    const auto directory = MountDirectory(node);
    return directory && Announce(hal_adapter::HAL_EVENT_SYS_USB_DRIVE_PRESENT, *directory);
  });
}

std::vector<std::string> USBMonitor::PresentDrives() const {
  std::vector<std::string> nodes;
  const Enumeration all(udev_enumerate_new(context_.get()));
  if (!all || udev_enumerate_add_match_subsystem(all.get(), kSubsystem) < 0 ||
      udev_enumerate_scan_devices(all.get()) < 0) {
    PLOG_WARN(kTag, "Drives that are there already are not known");
    return nodes;
  }
  for (udev_list_entry* entry = udev_enumerate_get_list_entry(all.get()); entry != nullptr;
       entry = udev_list_entry_get_next(entry)) {
    const Device device(
        udev_device_new_from_syspath(context_.get(), udev_list_entry_get_name(entry)));
    const char* node = device ? udev_device_get_devnode(device.get()) : nullptr;
    if (node != nullptr && IsUsbDisk(device.get())) nodes.emplace_back(node);
  }
  return nodes;
}

bool USBMonitor::Announce(hal_adapter::HalEventType type, const std::string& directory) {
  hal_adapter::HalEventRecord record{};
  if (directory.size() >= sizeof record.payload) {
    PLOG_WARN(kTag, "The directory of the drive has %zu bytes, it is not announced",
              directory.size());
    return true;  // it would be no other the next time
  }
  record.type = type;
  copy_text(record.payload, directory);
  const hal_adapter::HalStatus status = board_.post(&record);
  if (status != hal_adapter::HalStatus::kSuccess)
    PLOG_WARN(kTag, "Failed to post USB drive event, err is %d", static_cast<int>(status));
  return status == hal_adapter::HalStatus::kSuccess;
}

/// Nothing when the drive is not mounted in time or the monitor is to end.
std::optional<std::string> USBMonitor::AwaitMount(const std::string& node) {
  for (int tries = 0; tries < board_.mount_tries && running_; ++tries) {
    if (auto directory = MountDirectory(node)) return directory;
    Pause(board_.mount_pause);
  }
  if (running_) PLOG_ERROR(kTag, "Device mounting timeout");
  return std::nullopt;
}

std::optional<std::string> USBMonitor::MountDirectory(const std::string& node) const {
  const auto mounts = utils::ReadSmallFile(board_.mounts, kMountTableLimit);
  auto directory = mount_directory_of(node, mounts.value_or(""));
  if (directory) {
    PLOG_INFO(kTag, "The device has been mounted to %s",
              utils::LogText(*directory, sizeof hal_adapter::HalEventRecord::payload).c_str());
  }
  return directory;
}

/// Ends early when the monitor is to end.
void USBMonitor::Pause(std::chrono::milliseconds time) {
  pollfd stop{stop_event_.Get(), POLLIN, 0};
  ::poll(&stop, 1, static_cast<int>(time.count()));
}

}  // namespace varnel::platform
