#include "virtual_board/usb/drive.h"

#include <mntent.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "virtual_board/common/files.h"
#include "virtual_board/common/process.h"
#include "virtual_board/usb/device_message.h"

namespace varnel::board {

namespace fs = std::filesystem;

namespace {

constexpr const char* kSys = "/sys";

/// What libudev reads of a device.
void MakeDevice(const fs::path& directory, const fs::path& subsystem, const std::string& type,
                const std::string& name = {}) {
  fs::create_directories(directory);
  const std::string node = name.empty() ? "" : "DEVNAME=" + name + "\n";
  if (!ReplaceFile(directory / "uevent", node + "DEVTYPE=" + type + "\n"))
    throw std::runtime_error("cannot write in " + directory.string());
  if (!fs::is_symlink(directory / "subsystem"))
    fs::create_symlink(subsystem, directory / "subsystem");
}

struct CloseTable {
  void operator()(FILE* table) const { ::endmntent(table); }
};

}  // namespace

Drive::Drive(const std::string& name) : name_(name) {
  const bool letters = name.find_first_not_of("abcdefghijklmnopqrstuvwxyz") == std::string::npos;
  if (name.empty() || !letters) throw std::invalid_argument("no name of a disk: " + name);
}

fs::path Drive::Device(bool usb) const {
  return fs::path(kSys) / (usb ? "devices/usb1/1-" : "devices/platform/ata-") += name_;
}

fs::path Drive::Disk(bool usb) const {
  return Device(usb) / "block" / name_;
}

fs::path Drive::Listed() const {
  return fs::path(kSys) / "class/block" / name_;
}

void Drive::MakeTree(bool usb) const {
  MakeDevice(Device(usb), usb ? "/sys/bus/usb" : "/sys/bus/platform", usb ? "usb_device" : "");
  MakeDevice(Disk(usb), "/sys/class/block", "disk", name_);
  fs::create_directories(Listed().parent_path());
  if (!fs::is_symlink(Listed())) fs::create_symlink(Disk(usb), Listed());
}

void Drive::Plug(const PlugOptions& options) const {
  if (!MountDirectories().empty()) throw std::runtime_error(name_ + " is plugged in already");
  MakeTree(options.usb);
  const bool later = options.mount_after.count() > 0;
  if (!later) Mount(options);
  for (const std::string& action : options.actions) Announce(action, options.usb);
  std::this_thread::sleep_for(options.mount_after);
  if (later) Mount(options);
}

void Drive::Mount(const PlugOptions& options) const {
  if (options.mount.empty()) return;
  fs::create_directories(options.mount);
  const std::string size = "size=" + std::to_string(options.size_mib) + "m";
  if (::mount(Partition().c_str(), options.mount.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
              size.c_str()) != 0)
    throw std::system_error(errno, std::generic_category(), "mount " + options.mount.string());
  if (!options.fill.empty()) Fill(options);
}

void Drive::Fill(const PlugOptions& options) {
  const ProgramResult filled =
      RunProgram({"/bin/sh", "-c", "cd \"$0\" && " + options.fill, options.mount.string()},
                 std::chrono::minutes(1));
  if (filled.status != 0) throw std::runtime_error("the drive cannot be filled: " + filled.err);
}

std::vector<std::string> Drive::MountDirectories() const {
  std::vector<std::string> directories;
  const std::unique_ptr<FILE, CloseTable> table(::setmntent("/proc/self/mounts", "re"));
  if (!table) return directories;
  while (const mntent* entry = ::getmntent(table.get())) {
    if (entry->mnt_fsname == Partition()) directories.emplace_back(entry->mnt_dir);
  }
  return directories;
}

void Drive::Unplug() const {
  const bool usb = fs::exists(Disk(true));
  if (!usb && !fs::exists(Disk(false))) throw std::runtime_error("no drive " + name_);
  for (const std::string& directory : MountDirectories()) {
    if (::umount2(directory.c_str(), MNT_DETACH) != 0)
      throw std::system_error(errno, std::generic_category(), "umount " + directory);
  }
  fs::remove(Listed());
  fs::remove_all(Device(usb));
  Announce("remove", usb);
}

/// A partition comes with its disk and changes by itself only.
void Drive::Announce(const std::string& action, bool usb) const {
  const std::string path = Disk(usb).string().substr(std::string(kSys).size());
  Send({action, path, "block", "disk", "/dev/" + name_});
  if (action != "change")
    Send({action, path + "/" + name_ + "1", "block", "partition", Partition()});
}

}  // namespace varnel::board
