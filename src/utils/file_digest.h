#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "utils/owned.h"

namespace varnel::utils {

/// A running SHA-256. Throws std::runtime_error when the crypto library fails.
class Sha256 {
 public:
  Sha256();
  void Add(std::string_view bytes);
  /// Of everything so far, in lower-case hexadecimal digits; once.
  [[nodiscard]] std::string Hex();

 private:
  const Owned<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

/// Which file it was, whatever its name and place.
struct FileDigest {
  uint64_t bytes = 0;
  std::string sha256;
};

/// Reads the file piece by piece. Throws std::system_error when it cannot be read.
/// @param piece gets every piece in turn
[[nodiscard]] FileDigest DigestOf(
    const std::filesystem::path& file,
    const std::function<void(std::string_view)>& piece = [](std::string_view) {});

}  // namespace varnel::utils
