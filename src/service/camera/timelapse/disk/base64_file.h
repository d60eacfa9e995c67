#pragma once

#include <filesystem>

namespace varnel::service {

/// Writes the Base64 encoding (RFC 4648, section 4, one line) of a picture's bytes to `target`,
/// which is replaced in one step. False is logged.
[[nodiscard]] bool WriteBase64(const std::filesystem::path& source,
                               const std::filesystem::path& target);

}  // namespace varnel::service
