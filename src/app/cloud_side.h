#pragma once

#include <memory>

#include "comms/comms_manager.h"
#include "hal_adapter/system_adapter.h"
#include "service/cloud/cloud_manager.h"
#include "service/cloud/upload/file_uploader.h"
#include "utils/deployment.h"

namespace varnel::app {

/// The cloud side of this board, as the maker has it. Not started. The manager of the brokers
/// outlives it.
[[nodiscard]] std::unique_ptr<service::CloudManager> MakeCloudManager(
    comms::CommsManager& comms, const std::shared_ptr<const hal_adapter::DeviceIdentity>& identity,
    const utils::CloudDeployment& deployment);

/// The way of other services' files to the cloud. The manager outlives it.
[[nodiscard]] std::unique_ptr<service::FileUploader> MakeUploader(service::CloudManager& cloud);

}  // namespace varnel::app
