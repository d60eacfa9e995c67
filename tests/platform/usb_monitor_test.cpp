// The real libudev on devices that umockdev makes up; runs under umockdev-wrapper.
#include "platform/usb_monitor.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <umockdev.h>

#include <cerrno>
#include <cstring>

#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace {

/// Failures of libudev on demand.
struct LibudevFaults {
  bool no_context = false;
  bool no_monitor = false;
  /// Receiving fails with it and leaves the event where it is.
  std::atomic<int> receive_errno{0};
  std::atomic<int> receives{0};
} faults;

template <class Function>
Function* Real(Function*, const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand in front of the library's own functions.
extern "C" {
udev* udev_new() {
  return faults.no_context ? nullptr : Real(&udev_new, "udev_new")();
}

udev_monitor* udev_monitor_new_from_netlink(udev* context, const char* name) {
  if (faults.no_monitor) return nullptr;
  return Real(&udev_monitor_new_from_netlink, "udev_monitor_new_from_netlink")(context, name);
}

udev_device* udev_monitor_receive_device(udev_monitor* monitor) {
  ++faults.receives;
  errno = faults.receive_errno;
  if (errno != 0) return nullptr;
  return Real(&udev_monitor_receive_device, "udev_monitor_receive_device")(monitor);
}
}

namespace varnel::platform {
namespace {

using namespace std::chrono_literals;
using hal_adapter::HalEventRecord;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kTag = "IMSYSUSBM";

/// A board whose devices come and go as the test says.
class Devices {
 public:
  Devices() : bed_(umockdev_testbed_new()) {
    usb_ = Add("usb", "1-1", "/sys/devices/none", "usb_device");
    internal_ = Add("platform", "soc", "/sys/devices/none", "");
  }

  std::string AddUsb(const std::string& name, const char* type = "disk") const {
    return Add("block", name, usb_, type);
  }
  std::string AddInternal(const std::string& name) const {
    return Add("block", name, internal_, "disk");
  }
  void Tell(const std::string& path, const char* action) const {
    umockdev_testbed_uevent(bed_.get(), path.c_str(), action);
  }

 private:
  std::string Add(const char* subsystem, const std::string& name, const std::string& parent,
                  const char* type) const {
    const bool root = parent == "/sys/devices/none";
    const std::string node = "/dev/" + name;
    const utils::Owned<gchar, g_free> path(umockdev_testbed_add_device(
        bed_.get(), subsystem, name.c_str(), root ? nullptr : parent.c_str(), nullptr, "DEVTYPE",
        type, root ? nullptr : "DEVNAME", node.c_str(), nullptr));
    return path.get();
  }

  const utils::Owned<UMockdevTestbed, g_object_unref> bed_;
  std::string usb_;
  std::string internal_;
};

class UsbMonitorTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(umockdev_in_mock_environment()) << "must be started by umockdev-wrapper";
    faults.receive_errno = 0;
    faults.receives = 0;
  }
  void TearDown() override { USBMonitor::Stop(); }

  UsbMonitorBoard Board() {
    UsbMonitorBoard board;
    board.mounts = dir_ / "mounts";
    board.event_wait = 1h;
    board.mount_tries = 3;
    board.mount_pause = 1ms;
    board.failure_pause = 1ms;
    board.post = [this](const HalEventRecord* event) {
      const bool inserted = event->type == hal_adapter::HAL_EVENT_SYS_USB_DRIVE_INSERT;
      posted_.Put((inserted ? "" : "present ") + std::string(event->payload));
      return post_status_;
    };
    return board;
  }
  void Start(const UsbMonitorBoard& board) {
    USBMonitor::Start(board);
    ASSERT_TRUE(Logged("Monitor task start"));
  }
  void Mount(const std::string& line) { dir_.Write("mounts", line + " vfat rw 0 0\n"); }
  bool Logged(const char* text) const {
    return test::Eventually([&] { return log_.Has(kTag, text); });
  }
  void ExpectQuickStop() {
    const auto start = steady_clock::now();
    USBMonitor::Stop();
    EXPECT_LT(steady_clock::now() - start, 2s);
    EXPECT_EQ(log_.Count(kTag, "Monitor task end"), 1u);
    EXPECT_THAT(posted_.Items(), IsEmpty());
    EXPECT_FALSE(log_.Has(kTag, "Device mounting timeout"));
  }

  const test::LogCapture log_;
  const test::TempDir dir_;
  const Devices devices_;
  test::Mailbox<std::string> posted_;
  hal_adapter::HalStatus post_status_ = hal_adapter::HalStatus::kSuccess;
};

TEST_F(UsbMonitorTest, DrivesThatAreThereAlreadyAreToldAsSuch) {
  devices_.AddUsb("sda");
  const std::string card_reader = devices_.AddUsb("sdb");
  devices_.AddInternal("nvme0n1");
  dir_.Write("mounts", "/dev/nvme0n1 / ext4\n/dev/sda1 /mnt/a vfat\n/dev/sdc /mnt/c vfat\n");
  Start(Board());
  USBMonitor::Start(Board());
  devices_.AddUsb("sdc1", "partition");
  devices_.Tell(card_reader, "change");
  devices_.AddUsb("sdc");
  EXPECT_THAT(posted_.WaitFor(2), ElementsAre("present /mnt/a", "/mnt/c"));
  EXPECT_FALSE(log_.Has(kTag, "Device mounting timeout")) << "a card reader without a card";
  EXPECT_EQ(log_.Count(kTag, "Monitor task start"), 1u) << "one monitor, however often started";
}

TEST_F(UsbMonitorTest, ADriveThatIsMountedTooLateIsNoInsertionAndYetFound) {
  devices_.AddUsb("sdp");
  Start(Board());
  devices_.AddUsb("sda");
  const std::string pulled_out = devices_.AddUsb("sdd");
  ASSERT_TRUE(test::Eventually([&] { return log_.Count(kTag, "Device mounting timeout") == 2; }));
  devices_.Tell(pulled_out, "remove");
  ASSERT_TRUE(Logged("Device event: node: /dev/sdd, action: remove"));
  dir_.Write("mounts",
             "/dev/sdb1 /b vfat\n/dev/sda1 /a vfat\n/dev/sdp1 /p vfat\n/dev/sdd1 /d vfat\n");
  devices_.AddUsb("sdb");
  EXPECT_THAT(posted_.WaitFor(3), ElementsAre("/b", "present /p", "present /a"));
}

TEST_F(UsbMonitorTest, ADirectoryThatDoesNotFitIsNotAnnouncedAndARefusalLogged) {
  post_status_ = hal_adapter::HalStatus::kHardwareError;
  const std::string longest = "/" + std::string(254, 'd');
  dir_.Write("mounts", "/dev/sdb " + longest + "d vfat\n/dev/sda " + longest + " vfat\n");
  Start(Board());
  devices_.AddUsb("sdb");
  devices_.AddUsb("sda");
  EXPECT_THAT(posted_.WaitFor(2), ElementsAre(longest, "present " + longest)) << "it is told again";
  EXPECT_TRUE(Logged("The directory of the drive has 256 bytes, it is not announced"));
  EXPECT_TRUE(Logged("Failed to post USB drive event, err is -9"));
}

TEST_F(UsbMonitorTest, StopsAtOnceWhileItWaitsForAMount) {
  UsbMonitorBoard board = Board();
  board.mount_pause = 1h;
  Start(board);
  devices_.AddUsb("sda");
  ASSERT_TRUE(Logged("USB drive detected: /dev/sda"));
  ExpectQuickStop();
}

TEST_F(UsbMonitorTest, AnEventThatCannotBeReceivedCostsNoProcessorTime) {
  faults.receive_errno = EBADF;
  UsbMonitorBoard board = Board();
  board.failure_pause = 1h;
  Start(board);
  devices_.AddUsb("sda");
  ASSERT_TRUE(Logged("Receiving a device event failed, errno is 9"));
  ExpectQuickStop();
  EXPECT_EQ(faults.receives, 1);
}

TEST_F(UsbMonitorTest, GoesOnAfterAnOverflow) {
  faults.receive_errno = ENOBUFS;
  Mount("/dev/sda /mnt/a");
  Start(Board());
  devices_.AddUsb("sda");
  ASSERT_TRUE(test::Eventually([] { return faults.receives >= 3; }));
  faults.receive_errno = 0;
  EXPECT_THAT(posted_.WaitFor(1), ElementsAre("/mnt/a"));
  EXPECT_EQ(log_.Count(kTag, "Receiving a device event failed, errno is 105"), 1u);
}

TEST_F(UsbMonitorTest, WorksWithDescriptorsBeyondTheFirst1024) {
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max < 1200u) GTEST_SKIP() << "no room for that many descriptors";
  const rlimit wide{std::max<rlim_t>(limit.rlim_cur, 1200), limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &wide), 0);
  std::vector<utils::UniqueFd> taken;
  while (taken.empty() || taken.back().Get() < FD_SETSIZE)
    taken.emplace_back(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
  Mount("/dev/sda /mnt/a");
  Start(Board());
  devices_.AddUsb("sda");
  EXPECT_THAT(posted_.WaitFor(1), ElementsAre("/mnt/a"));
}

TEST_F(UsbMonitorTest, WithoutLibudevItIsInertUntilItIsStartedAnew) {
  for (auto [fault, text] : {std::pair(&faults.no_context, "Unable to create the udev context"),
                             std::pair(&faults.no_monitor, "Unable to create udev monitor")}) {
    *fault = true;
    USBMonitor::Start(Board());
    *fault = false;
    USBMonitor::Start(Board());
    EXPECT_EQ(log_.Count(kTag, text), 1u);
    USBMonitor::Stop();
  }
  EXPECT_FALSE(log_.Has(kTag, "Monitor task start"));
  Start(Board());
}

}  // namespace
}  // namespace varnel::platform
