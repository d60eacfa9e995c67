#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "service/system/upgrade/firmware_catalogue.h"

namespace varnel::service {

/// The error by which a request is answered for its parameters; nothing: they make sense. A wrong
/// type is logged.
[[nodiscard]] std::optional<nlohmann::json> ErrorInDownload(const nlohmann::json& params);
[[nodiscard]] std::optional<nlohmann::json> ErrorInUpgrade(const nlohmann::json& params);

/// What a check answers.
[[nodiscard]] nlohmann::json AnswerOf(const FirmwareOffer& offer, bool is_downloading);

}  // namespace varnel::service
