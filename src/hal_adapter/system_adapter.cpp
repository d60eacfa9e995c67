#include "hal_adapter/system_adapter.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>
#include <system_error>
#include <utility>

#include "hal_adapter/device_uuid.h"
#include "utils/atomic_file.h"
#include "utils/log_text.h"

namespace varnel::hal_adapter {
namespace {

constexpr const char* kTag = "HALSYS";
namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr std::chrono::seconds kFirstLookPause = 1s;
constexpr std::chrono::seconds kLastLookPause = 10min;

/// The text of a field even if the platform forgot its end.
template <size_t Size>
std::string_view FieldText(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

DeviceIdentity ToIdentity(const DeviceInfo& info) {
  DeviceIdentity identity;
  identity.serial_number = FieldText(info.serial_number);
  identity.product_code = FieldText(info.product_code);
  identity.device_key = utils::SecretString(FieldText(info.device_key));
  identity.mac = FieldText(info.mac);
  identity.firmware_version = FieldText(info.firmware_version);
  identity.full_firmware_version = FieldText(info.full_firmware_version);
  identity.hardware_version = FieldText(info.hardware_version);
  identity.processor_serial = FieldText(info.processor_serial);
  return identity;
}

/// The platform puts a text of its own for an interface that is not there.
bool HasMac(const DeviceIdentity& identity) {
  return identity.mac.find(':') != std::string::npos;
}

/// All else is as it was read at first: a storage that fails now must not take the name away.
std::shared_ptr<const DeviceIdentity> WithMac(const DeviceIdentity& known, const std::string& mac) {
  return std::make_shared<const DeviceIdentity>(
      DeviceIdentity{known.serial_number, known.product_code,
                     utils::SecretString(known.device_key.Text()), mac, known.firmware_version,
                     known.full_firmware_version, known.hardware_version, known.processor_serial});
}

bool IsWriteError(const std::error_code& error) {
  return error == std::errc::no_space_on_device || error == std::errc::io_error ||
         error == std::errc::file_too_large;
}

bool IsOpenError(const std::error_code& error) {
  return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory ||
         error == std::errc::permission_denied || error == std::errc::read_only_file_system;
}

void WriteLine(const fs::path& path, const std::string& value) {
  const std::error_code error = utils::WriteFileAtomically(path, value + '\n', 0644);
  if (!error) return;
  if (IsOpenError(error)) {
    VLOG_ERROR(kTag, "Open file '{}' failed.", path.string());
  } else if (IsWriteError(error)) {
    VLOG_ERROR(kTag, "Write file '{}' failed.", path.string());
  } else {
    VLOG_ERROR(kTag, "Filesystem error: {}", error.message());
  }
}

}  // namespace

SystemAdapter::SystemAdapter(AreaInit init, IdentityFiles files, const HalRegistry& registry,
                             std::function<uint32_t()> random_seed, utils::Clock& clock)
    : init_(std::move(init)),
      files_(std::move(files)),
      registry_(registry),
      random_seed_(std::move(random_seed)),
      clock_(clock) {}

uint32_t SystemAdapter::DeviceSeed() {
  return std::random_device{}();
}

bool SystemAdapter::Start() {
  table_ = StartArea(kTag, init_, registry_.system);
  const std::shared_ptr<const DeviceIdentity> read = table_ != nullptr ? ReadIdentity() : nullptr;
  const auto identity = read ? read : std::make_shared<const DeviceIdentity>();
  Publish(*identity);
  VLOG_INFO(kTag, "Product is {}:{}", identity->product_code, identity->serial_number);
  Adopt(identity);
  VLOG_INFO(kTag, "Firmware version is {}", utils::LogText(identity->firmware_version));
  if (read && !HasMac(*read)) {
    const utils::MutexLock lock(looking_);
    look_pause_ = kFirstLookPause;
    next_look_ = clock_.Now() + look_pause_;
  }
  return read != nullptr;
}

void SystemAdapter::Adopt(std::shared_ptr<const DeviceIdentity> identity) {
  std::string uuid = MakeUuid(*identity);
  VLOG_INFO(kTag, "UUID is {}", uuid);
  const utils::MutexLock lock(mutex_);
  identity_ = std::move(identity);
  uuid_ = std::move(uuid);
}

bool SystemAdapter::IsTimeToLook() {
  if (look_pause_ == 0s || clock_.Now() < next_look_) return false;
  look_pause_ = std::min(2 * look_pause_, kLastLookPause);
  next_look_ = clock_.Now() + look_pause_;
  return true;
}

/// One caller looks, which may take half a second; others get what is known.
void SystemAdapter::LookForMac() {
  if (!looking_.TryLock()) return;
  const utils::MutexLock looking(looking_, std::adopt_lock);
  if (!IsTimeToLook()) return;
  const std::shared_ptr<const DeviceIdentity> found = ReadIdentity();
  if (!found || !HasMac(*found)) return;
  look_pause_ = 0s;
  Adopt(WithMac(*Known(), found->mac));  // which nobody else changes
}

std::shared_ptr<const DeviceIdentity> SystemAdapter::Identity() {
  LookForMac();
  return Known();
}

std::shared_ptr<const DeviceIdentity> SystemAdapter::Known() const {
  const utils::MutexLock lock(mutex_);
  return identity_;
}

std::string SystemAdapter::Uuid() {
  LookForMac();
  const utils::MutexLock lock(mutex_);
  return uuid_;
}

std::string SystemAdapter::FullFirmwareVersionNow() const {
  const auto now = table_ != nullptr ? ReadIdentity() : nullptr;
  return now ? now->full_firmware_version : std::string();
}

std::shared_ptr<const DeviceIdentity> SystemAdapter::ReadIdentity() const {
  DeviceInfo info{};
  const utils::WipeAtEnd wipe(info);
  if (table_->get_device_info == nullptr || table_->get_device_info(&info) != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Get device information failed");
    return nullptr;
  }
  return std::make_shared<const DeviceIdentity>(ToIdentity(info));
}

void SystemAdapter::Publish(const DeviceIdentity& identity) const {
  WriteLine(files_.serial_number, identity.serial_number);
  WriteLine(files_.product_code, identity.product_code);
  WriteLine(files_.version, identity.firmware_version);
  WriteLine(files_.full_version, identity.full_firmware_version);
}

std::string SystemAdapter::MakeUuid(const DeviceIdentity& identity) const {
  const std::string name = identity.serial_number + identity.mac + identity.processor_serial;
  if (!name.empty()) {
    if (std::optional<std::string> uuid = NameUuid(name)) return *uuid;
    VLOG_ERROR(kTag, "SHA-1 is not available, the UUID is random");
  }
  return RandomUuid(random_seed_());
}

HalStatus SystemAdapter::UpgradeFirmware(uint32_t target, const std::string& package) const {
  if (table_ == nullptr || table_->upgrade_firmware == nullptr) {
    VLOG_ERROR(kTag, "The firmware upgrade function has not been implemented");
    return HalStatus::kUnsupported;
  }
  const HalStatus status = table_->upgrade_firmware(target, package.c_str());
  if (status != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "System upgrade failed, reason: {}", hal_error_string(status));
  }
  return status;
}

HalStatus SystemAdapter::CollectPlatformData(uint32_t type, const std::string& out_dir) const {
  if (table_ == nullptr || table_->collect_platform_data == nullptr) {
    VLOG_ERROR(kTag, "The collect platform data function has not been implemented");
    return HalStatus::kUnsupported;
  }
  const HalStatus status = table_->collect_platform_data(type, out_dir.c_str());
  if (status != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "Collect platform data {} failed, reason: {}", type, hal_error_string(status));
  }
  return status;
}

HalStatus SystemAdapter::PrepareReboot() const {
  if (table_ == nullptr || table_->prepare_reboot == nullptr) {
    VLOG_ERROR(kTag, "prepare_reboot interface has not been implemented");
    return HalStatus::kUnsupported;
  }
  return table_->prepare_reboot();
}

}  // namespace varnel::hal_adapter
