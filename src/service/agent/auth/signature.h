#pragma once

#include <span>
#include <string>
#include <string_view>

namespace varnel::service {

/// A random number of six digits.
[[nodiscard]] std::string MakeNonce();

/// What a device signs to prove who it is.
/// @param operate what it wants to do; may be empty
[[nodiscard]] std::string SignedText(const std::string& serial_number, const std::string& operate,
                                     const std::string& nonce);

/// SHA-256 with an EC or RSA key, as one line of base64.
/// @param key base64 of a DER private key, in one line
/// Throws std::runtime_error, its text begins with "签名失败: ".
[[nodiscard]] std::string Sign(const std::string& text, std::string_view key);

/// Whether such a signature is of this text.
/// @param public_key DER, as SubjectPublicKeyInfo
[[nodiscard]] bool Verify(const std::string& text, const std::string& signature,
                          std::span<const unsigned char> public_key);

}  // namespace varnel::service
