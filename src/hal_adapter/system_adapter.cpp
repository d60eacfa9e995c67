#include "hal_adapter/system_adapter.h"

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
                             std::function<uint32_t()> random_seed)
    : init_(std::move(init)),
      files_(std::move(files)),
      registry_(registry),
      random_seed_(std::move(random_seed)) {}

uint32_t SystemAdapter::DeviceSeed() {
  return std::random_device{}();
}

bool SystemAdapter::Start() {
  table_ = StartArea(kTag, init_, registry_.system);
  std::shared_ptr<const DeviceIdentity> identity = table_ != nullptr ? ReadIdentity() : nullptr;
  const bool known = identity != nullptr;
  const std::lock_guard lock(mutex_);
  Adopt(known ? std::move(identity) : identity_);
  return known;
}

void SystemAdapter::Adopt(std::shared_ptr<const DeviceIdentity> identity) {
  identity_ = std::move(identity);
  Publish();
  VLOG_INFO(kTag, "Product is {}:{}", identity_->product_code, identity_->serial_number);
  uuid_ = MakeUuid();
  VLOG_INFO(kTag, "UUID is {}", uuid_);
  VLOG_INFO(kTag, "Firmware version is {}", utils::LogText(identity_->firmware_version));
}

/// One caller reads, which may take half a second; others get what is known.
void SystemAdapter::LookAgain() {
  const std::unique_lock reading(reading_, std::try_to_lock);
  if (!reading || table_ == nullptr) return;
  {
    const std::lock_guard lock(mutex_);
    if (HasMac(*identity_)) return;
  }
  std::shared_ptr<const DeviceIdentity> identity = ReadIdentity();
  if (!identity || !HasMac(*identity)) return;
  const std::lock_guard lock(mutex_);
  Adopt(std::move(identity));
}

std::shared_ptr<const DeviceIdentity> SystemAdapter::Identity() {
  LookAgain();
  const std::lock_guard lock(mutex_);
  return identity_;
}

std::string SystemAdapter::Uuid() {
  LookAgain();
  const std::lock_guard lock(mutex_);
  return uuid_;
}

std::shared_ptr<const DeviceIdentity> SystemAdapter::ReadIdentity() const {
  DeviceInfo info{};
  const utils::WipeAtEnd wipe(info);
  if (table_->get_device_info == nullptr || table_->get_device_info(&info) != kHalSuccess) {
    VLOG_ERROR(kTag, "Get device information failed");
    return nullptr;
  }
  return std::make_shared<const DeviceIdentity>(ToIdentity(info));
}

void SystemAdapter::Publish() const {
  WriteLine(files_.serial_number, identity_->serial_number);
  WriteLine(files_.product_code, identity_->product_code);
  WriteLine(files_.version, identity_->firmware_version);
  WriteLine(files_.full_version, identity_->full_firmware_version);
}

std::string SystemAdapter::MakeUuid() const {
  const std::string name = identity_->serial_number + identity_->mac + identity_->processor_serial;
  if (!name.empty()) {
    if (std::optional<std::string> uuid = NameUuid(name)) return *uuid;
    VLOG_ERROR(kTag, "SHA-1 is not available, the UUID is random");
  }
  return RandomUuid(random_seed_());
}

HalStatus SystemAdapter::UpgradeFirmware(uint32_t target, const std::string& package) const {
  if (table_ == nullptr || table_->upgrade_firmware == nullptr) {
    VLOG_ERROR(kTag, "The firmware upgrade function has not been implemented");
    return kHalUnsupported;
  }
  const HalStatus status = table_->upgrade_firmware(target, package.c_str());
  if (status != kHalSuccess) {
    VLOG_ERROR(kTag, "System upgrade failed, reason: {}", hal_error_string(status));
  }
  return status;
}

HalStatus SystemAdapter::CollectPlatformData(uint32_t type, const std::string& out_dir) const {
  if (table_ == nullptr || table_->collect_platform_data == nullptr) {
    VLOG_ERROR(kTag, "The collect platform data function has not been implemented");
    return kHalUnsupported;
  }
  const HalStatus status = table_->collect_platform_data(type, out_dir.c_str());
  if (status != kHalSuccess) {
    VLOG_ERROR(kTag, "Collect platform data {} failed, reason: {}", type, hal_error_string(status));
  }
  return status;
}

HalStatus SystemAdapter::PrepareReboot() const {
  if (table_ == nullptr || table_->prepare_reboot == nullptr) {
    VLOG_ERROR(kTag, "prepare_reboot interface has not been implemented");
    return kHalUnsupported;
  }
  return table_->prepare_reboot();
}

}  // namespace varnel::hal_adapter
