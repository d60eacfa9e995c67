#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "utils/secret.h"

namespace varnel::service {

/// AES-256-CBC with PKCS#7 padding, and a random IV of 16 bytes in front of what is encrypted. It
/// hides the content and does not protect it from being changed. What fails is logged; nothing is
/// returned then.
/// @param key 32 bytes
[[nodiscard]] std::optional<std::vector<unsigned char>> AesEncrypt(
    const utils::SecretString& key, std::span<const unsigned char> plain);
[[nodiscard]] std::optional<utils::SecretString> AesDecrypt(
    const utils::SecretString& key, std::span<const unsigned char> encrypted);

/// The key of a file: 32 bytes, or 64 hexadecimal digits. Null without a usable file, which is
/// logged; an empty path is none.
[[nodiscard]] utils::SharedSecret LoadAesKey(const std::filesystem::path& file);

}  // namespace varnel::service
