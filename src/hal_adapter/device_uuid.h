#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace varnel::hal_adapter {

/// The name-based UUID (version 5 bits, no name space) of `name`; nothing when SHA-1 is not
/// available.
[[nodiscard]] std::optional<std::string> NameUuid(std::string_view name);

/// A random UUID (version 4) drawn from a Mersenne twister that starts at `seed`.
[[nodiscard]] std::string RandomUuid(uint32_t seed);

}  // namespace varnel::hal_adapter
