#pragma once

#include <functional>
#include <memory>
#include <string_view>

#include "comms/comms_manager.h"
#include "hal_adapter/system_adapter.h"
#include "service/cloud/cloud_manager.h"
#include "service/system/collection/log_collection_manager.h"
#include "utils/client_path.h"
#include "utils/deployment.h"

namespace varnel::app {

/// What collections for diagnosis meet on this board; all outlives them.
struct CollectionSide {
  comms::CommsManager& comms;
  hal_adapter::SystemAdapter& system;
  service::CloudManager& cloud;
  const utils::ClientPathPolicy& paths;
  service::SourceDesk& desk;
  /// Secrets of other services; called while a collection runs.
  std::function<void(const std::function<void(std::string_view secret)>& visit)> for_each_secret;
};

/// What collections are made of, as the maker has it.
/// @param detection_results their directory
[[nodiscard]] service::LogCollectionSetup CollectionSetupOf(
    const CollectionSide& side, const utils::Deployment& deployment,
    const std::filesystem::path& storage, const std::filesystem::path& detection_results);

}  // namespace varnel::app
