#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "utils/secret.h"

namespace varnel::utils {

/// RFC 4648 in one line, with its padding.
[[nodiscard]] std::string EncodeBase64(std::span<const unsigned char> bytes);

/// The same back; line breaks are none of it. Nothing for what is no base64.
[[nodiscard]] std::optional<std::vector<unsigned char>> DecodeBase64(std::string_view text);

/// For what must not stay behind in memory; one line. Nothing also for an empty text.
[[nodiscard]] std::optional<SecretString> DecodeSecretBase64(std::string_view text);

}  // namespace varnel::utils
