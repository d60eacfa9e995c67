#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace varnel::utils {

/// `length` random bytes as lower-case hexadecimal text when the encoding is "hex", and nothing for
/// any other encoding, "base64" too. When there are no random bytes it is a fixed password, so that
/// the caller's work goes on; the log says so.
[[nodiscard]] std::string RandomPassword(std::string_view encoding, size_t length);

}  // namespace varnel::utils
