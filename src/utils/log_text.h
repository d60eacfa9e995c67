#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace varnel::utils {

/// Text from outside made fit for one log line: at most `max_bytes` of it, cut between characters;
/// control and line-breaking characters and bytes that are no UTF-8 appear as "\xNN".
[[nodiscard]] std::string LogText(std::string_view untrusted, size_t max_bytes = 160);

/// Stands for a secret in a log line; tells only whether there was one.
[[nodiscard]] std::string MaskSecret(std::string_view secret);

/// The URL without its query string and its user information.
[[nodiscard]] std::string MaskUrl(std::string_view url);

}  // namespace varnel::utils
