#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "utils/secret.h"

namespace varnel::platform {

inline constexpr size_t kIdentityNonceSize = 12;
inline constexpr size_t kIdentityTagSize = 16;

/// The key in a regular file that holds exactly 32 bytes, or 64 hexadecimal digits and perhaps a
/// line feed. Nothing when there is no such file.
[[nodiscard]] std::optional<utils::SecretString> read_identity_key(const std::string& file);

/// Opens what AES-256-GCM sealed with this key. Nothing unless every bit is as it was sealed.
[[nodiscard]] std::optional<utils::SecretString> open_sealed(const utils::SecretString& key,
                                                             std::string_view nonce,
                                                             std::string_view sealed,
                                                             std::string_view tag);

}  // namespace varnel::platform
