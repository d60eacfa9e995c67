#pragma once

#include <openssl/evp.h>

#include <string>

#include "utils/owned.h"

namespace varnel::service {

/// What identifies the bytes of a firmware.
struct FirmwareDigests {
  std::string md5{};     ///< in lower-case digits
  std::string sha256{};  ///< 32 bytes; empty where nobody needs it
};

/// Computes them over bytes as they come. One thread.
class FirmwareDigest {
 public:
  /// @param with_sha256 for a signature
  explicit FirmwareDigest(bool with_sha256);

  /// False when the crypto library has no such digests, which is logged.
  [[nodiscard]] bool Begin();
  void Add(const char* data, size_t size);
  /// Of all since the begin.
  [[nodiscard]] FirmwareDigests End();

 private:
  using Context = utils::Owned<EVP_MD_CTX, EVP_MD_CTX_free>;

  const bool with_sha256_;
  Context md5_;
  Context sha256_;
};

}  // namespace varnel::service
