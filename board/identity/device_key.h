#pragma once

#include <string>

namespace varnel::board {

enum class KeyKind { kEc, kRsa };

/// A fresh private key, as the base64 text of its DER form: of an elliptic curve, or an RSA key of
/// 1024 bits, the longest that leaves an identity block room for the rest. Throws
/// std::runtime_error.
std::string NewPrivateKey(KeyKind kind);

/// The public key of such a text, PEM. Throws std::runtime_error.
std::string PublicKeyPem(const std::string& private_key);

}  // namespace varnel::board
