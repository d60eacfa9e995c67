#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

/// Makes the block in which a board carries its identity: 4 magic bytes, a format byte, a payload;
/// 1024 bytes in all. All functions throw std::runtime_error with a text for the user.
namespace varnel::board {

inline constexpr uint64_t kIdentityOffset = 26'624;

/// Format 0: the payload in clear.
std::string ClearIdentityBlock(const std::string& payload);

/// Format 1: the payload under AES-256-GCM with a key of 32 bytes and a fresh nonce.
std::string SealedIdentityBlock(const std::string& payload, const std::string& key);

/// The payload of a block in clear; empty when there is none in the file.
std::string ReadClearIdentityBlock(const std::filesystem::path& file);

/// The 32 bytes of a key file, which holds them as they are or as 64 hexadecimal digits.
std::string ReadKeyFile(const std::filesystem::path& file);

/// Writes the block in place, also into a file that is bound elsewhere. Makes the file, for the
/// owner only, when it is missing.
void WriteIdentityBlock(const std::filesystem::path& file, uint64_t offset,
                        const std::string& block);

}  // namespace varnel::board
