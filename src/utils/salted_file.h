#pragma once

#include <cstdint>
#include <filesystem>
#include <span>

#include "utils/secret.h"

namespace varnel::utils {

/// AES-256 key and CBC initialisation vector in one piece, as they are derived.
inline constexpr size_t kFileKeySize = 32 + 16;

/// Encrypts a regular file: "Salted__", the salt, AES-256-CBC of the content as it is while being
/// read. A regular file or link at the output is replaced by a new file of mode 0600, so who still
/// reads the old one is not disturbed. Throws std::runtime_error; what was written by then stays.
void WriteSaltedFile(const std::filesystem::path& input, const std::filesystem::path& output,
                     std::span<const uint8_t> salt, const SecretString& key);

}  // namespace varnel::utils
