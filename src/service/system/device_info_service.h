#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>

#include "comms/comms_manager.h"
#include "hal_adapter/system_adapter.h"

namespace varnel::service {

/// The method "system.get_device_info": who this printer is. Of the identity it tells all but the
/// secrets.
class DeviceInfoService {
 public:
  /// Called for each request, on any of the server's workers. Never null.
  using IdentityProvider = std::function<std::shared_ptr<const hal_adapter::DeviceIdentity>()>;

  /// The manager must outlive the service.
  DeviceInfoService(comms::CommsManager& comms, IdentityProvider identity);

  /// Registers the method; the manager keeps a reference to this object from then on.
  comms::CommsStatus Start();

  nlohmann::json ReqCallbackSystemGetDeviceInfo(const nlohmann::json& params) const;

 private:
  comms::CommsManager& comms_;
  const IdentityProvider identity_;
};

}  // namespace varnel::service
