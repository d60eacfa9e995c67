#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

namespace varnel::service {

/// The JSON of a server's answer. Nothing for what is none, is nested deeper than 64 levels (to
/// copy, write or destroy it recurses), or has more than 100,000 values: built it takes many times
/// the room of its text.
[[nodiscard]] std::optional<nlohmann::json> ParseReply(std::string_view text);

}  // namespace varnel::service
