#include "service/system/device_info_service.h"

#include <string>
#include <utility>

#include "comms/log_payload.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "DEVI";
constexpr size_t kLoggedBytes = 1024;
constexpr uint32_t kFromCloud = 1;

/// The platform puts these texts itself for what it cannot read; here they stand for an identity
/// that could not be asked for at all.
std::string Known(const std::string& value, const char* fallback) {
  return value.empty() ? fallback : value;
}

}  // namespace

DeviceInfoService::DeviceInfoService(comms::CommsManager& comms, IdentityProvider identity)
    : comms_(comms), identity_(std::move(identity)) {}

comms::CommsStatus DeviceInfoService::Start() {
  const auto status = comms_.RegisterMethod(
      "system.get_device_info", kFromCloud, comms::MethodKind::kQuick,
      [this](const json& params) { return ReqCallbackSystemGetDeviceInfo(params); });
  if (status == comms::CommsStatus::kOk) {
    VLOG_INFO(kTag, "Device info initialized via CommsManager.");
  }
  return status;
}

json DeviceInfoService::ReqCallbackSystemGetDeviceInfo(const json& params) const {
  VLOG_INFO(kTag, "receive JSON-RPC message: {}", comms::LogJson(params, kLoggedBytes));
  const auto identity = identity_();
  return {
      {"state", "success"},
      {"serial_number", Known(identity->serial_number, "--")},
      {"product_code", Known(identity->product_code, "--")},
      {"version", identity->firmware_version},
      {"fullversion", identity->full_firmware_version},
      {"hwver", Known(identity->hardware_version, "Unknown")},
      {"mac_address", Known(identity->mac, "UnknownMAC")},
  };
}

}  // namespace varnel::service
