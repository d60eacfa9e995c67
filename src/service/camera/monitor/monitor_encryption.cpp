#include "service/camera/monitor/monitor_encryption.h"

#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MON";
constexpr uint32_t kFixedIterations = 983;

}  // namespace

MonitorEncryption::MonitorEncryption(const std::string& monitor_name,
                                     const MonitorEncryptionSettings& settings)
    : fixed_(settings.fixed_password),
      name_(monitor_name + (fixed_ ? "_cap_enc_fix" : "_cap_enc_random")),
      iterations_(fixed_ ? kFixedIterations : settings.iterations) {
  if (fixed_) device_password_ = DeviceMonitorPassword(settings.fixed_password_file);
  VLOG_INFO(kTag, "Monitor name: {}, capture function is {}", monitor_name,
            fixed_ && !device_password_ ? "invalid" : "valid");
}

MonitorSwitches::Crypto MonitorEncryption::Make() const {
  const auto random = fixed_ ? std::nullopt : MakeMonitorPassword();
  const auto& password = fixed_ ? device_password_ : random;
  if (!password) return nullptr;
  return std::make_shared<utils::OpenSSLCrypto>(name_, password->text.Text(), iterations_,
                                                utils::SaltMode::kFixed, password->salt);
}

}  // namespace varnel::service
