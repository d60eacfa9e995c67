#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "hal_adapter/area_start.h"
#include "utils/clock.h"
#include "utils/mutex.h"
#include "utils/secret.h"

namespace varnel::hal_adapter {

/// Who this board is. The device key is a secret: it is neither logged nor written anywhere.
struct DeviceIdentity {
  std::string serial_number;
  std::string product_code;
  utils::SecretString device_key;
  std::string mac;
  std::string firmware_version;
  std::string full_firmware_version;
  std::string hardware_version;
  std::string processor_serial;
};

/// One-line files that tell other programs of the board who it is.
struct IdentityFiles {
  std::filesystem::path serial_number = "/tmp/.serial_number";
  std::filesystem::path product_code = "/tmp/.product_code";
  std::filesystem::path version = "/tmp/.version";
  std::filesystem::path full_version = "/tmp/.fullversion";
};

/// The system area: identity, upgrade, board data. After Start() every function is callable from
/// any thread. A network interface may come after the daemon: while the MAC address is missing, it
/// is looked for when somebody asks for the identity, in pauses that double from a second to ten
/// minutes, since the platform reads everything for it. Nothing else is taken from such a look.
class SystemAdapter {
 public:
  explicit SystemAdapter(AreaInit init, IdentityFiles files = {},
                         const HalRegistry& registry = HalRegistry::Instance(),
                         std::function<uint32_t()> random_seed = DeviceSeed,
                         utils::Clock& clock = utils::SystemClock::Instance());

  /// Once, before anything else. Reads and publishes the identity; the UUID is set even when it
  /// fails.
  [[nodiscard]] bool Start();
  /// Never null; does not change.
  std::shared_ptr<const DeviceIdentity> Identity();
  std::string Uuid();
  /// What the platform says at this moment, after an upgrade for example; empty when it cannot be
  /// asked.
  [[nodiscard]] std::string FullFirmwareVersionNow() const;

  /// Runs until the upgrade ended. The platform's status, or -7 without the slot.
  HalStatus UpgradeFirmware(uint32_t target, const std::string& package) const;
  HalStatus CollectPlatformData(uint32_t type, const std::string& out_dir) const;
  /// Tells the platform that the caller is about to reboot.
  HalStatus PrepareReboot() const;

 private:
  static uint32_t DeviceSeed();
  std::shared_ptr<const DeviceIdentity> ReadIdentity() const;
  void Adopt(std::shared_ptr<const DeviceIdentity> identity);
  void LookForMac();
  bool IsTimeToLook() REQUIRES(looking_);
  std::shared_ptr<const DeviceIdentity> Known() const;
  void Publish(const DeviceIdentity& identity) const;
  std::string MakeUuid(const DeviceIdentity& identity) const;

  const AreaInit init_;
  const IdentityFiles files_;
  const HalRegistry& registry_;
  const std::function<uint32_t()> random_seed_;
  utils::Clock& clock_;
  const SystemHalInterface* table_ = nullptr;

  utils::Mutex looking_;  // held while the MAC is looked for, before mutex_
  std::chrono::seconds look_pause_ GUARDED_BY(looking_){0};  // 0 when there is nothing to look for
  utils::Clock::TimePoint next_look_ GUARDED_BY(looking_);
  mutable utils::Mutex mutex_;
  std::shared_ptr<const DeviceIdentity> identity_ GUARDED_BY(mutex_) =
      std::make_shared<DeviceIdentity>();
  std::string uuid_ GUARDED_BY(mutex_);
};

}  // namespace varnel::hal_adapter
