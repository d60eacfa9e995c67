#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "comms/json_rpc_message.h"

namespace varnel::comms {

/// The start of a payload, whole JSON or not, for a log line: one line, without the values of
/// members whose names tell of secrets and without the query strings of URLs.
[[nodiscard]] std::string LogPayload(std::string_view payload, size_t max_bytes);

/// The same of a parsed value.
[[nodiscard]] std::string LogJson(const Json& value, size_t max_bytes);

}  // namespace varnel::comms
