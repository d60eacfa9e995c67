#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "service/system/collection/collector_setup.h"
#include "utils/result.h"

namespace varnel::service {

/// What a client asks for.
struct CollectionRequest {
  CollectionOrder order;
  bool upload = false;
  std::string filepath{};  ///< empty: no copy
};

/// The request, or the error that answers it; what is odd about it is logged.
[[nodiscard]] utils::Result<CollectionRequest, nlohmann::json> ReadCollectionRequest(
    const nlohmann::json& params);

/// "LOGS_20261122180000_sysinfo_enc.tar.gz", or without the suffix.
[[nodiscard]] std::string DeliveredName(int64_t seconds, bool encrypted);

}  // namespace varnel::service
