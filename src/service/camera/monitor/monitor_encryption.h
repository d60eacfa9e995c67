#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "service/camera/monitor/monitor_password.h"
#include "service/camera/monitor/monitor_switches.h"

namespace varnel::service {

/// How pictures are encrypted.
struct MonitorEncryptionSettings {
  /// One password for ever, made by the device itself.
  bool fixed_password = false;
  uint32_t iterations = 10'000;  ///< of random passwords
  std::filesystem::path fixed_password_file = "/home/ruxo/printer_data/varnel/monitor_password";
};

/// Makes what pictures are encrypted with. Thread-safe.
class MonitorEncryption {
 public:
  MonitorEncryption(const std::string& monitor_name, const MonitorEncryptionSettings& settings);

  /// Null when there is no password.
  [[nodiscard]] MonitorSwitches::Crypto Make() const;
  /// That of the device, if it has one.
  void ForEachSecret(const std::function<void(std::string_view secret)>& visit) const {
    if (device_password_) visit(device_password_->text.Text());
  }

 private:
  const bool fixed_;
  const std::string name_;
  const uint32_t iterations_;
  std::optional<MonitorPassword> device_password_;
};

}  // namespace varnel::service
