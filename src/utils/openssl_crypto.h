#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "utils/mutex.h"
#include "utils/secret.h"

namespace varnel::utils {

enum class SaltMode : uint32_t {
  kFixed = 0,          ///< the salt given at construction, whatever its length
  kRandomOnce = 1,     ///< 8 random bytes made for the first file and kept
  kRandomPerFile = 2,  ///< 8 new random bytes for each file
};

/// Encrypts files with a password. Whoever has the password, and the iteration count, opens them
/// with `openssl enc -d -aes-256-cbc -pbkdf2 -md sha256 -iter N`.
///
/// The format hides the content and does not protect it from being changed. One password and one
/// salt give one key for every file: two files that begin alike then look alike at their beginning.
///
/// Callable from any thread; files are encrypted side by side.
class OpenSSLCrypto {
 public:
  /// `name` is for the log only.
  OpenSSLCrypto(std::string name, std::string_view password, uint32_t iterations, SaltMode mode,
                std::vector<uint8_t> salt);
  OpenSSLCrypto(const OpenSSLCrypto&) = delete;
  OpenSSLCrypto& operator=(const OpenSSLCrypto&) = delete;
  ~OpenSSLCrypto();

  /// Reads in chunks, so the size does not matter. Throws std::runtime_error with a text for the
  /// log; a partly written output is left for the caller to remove.
  void EncryptFile(const std::filesystem::path& input, const std::filesystem::path& output);

  std::string_view Password() const { return password_.Text(); }
  uint32_t Iterations() const { return iterations_; }
  /// Of the file encrypted last, unless it is the same for all.
  std::vector<uint8_t> Salt() const;

 private:
  /// What one file is encrypted with.
  struct Material {
    std::vector<uint8_t> salt;
    SecretString key;
  };

  Material NextMaterial();
  void RenewSalt() REQUIRES(mutex_);
  SecretString DeriveKey() const REQUIRES(mutex_);

  const std::string name_;
  const SecretString password_;
  const uint32_t iterations_;
  const SaltMode mode_;
  mutable Mutex mutex_;
  std::vector<uint8_t> salt_ GUARDED_BY(mutex_);
  bool salt_made_ GUARDED_BY(mutex_) = false;
  SecretString key_
      GUARDED_BY(mutex_);  // empty until derived, and always with a salt for each file
};

}  // namespace varnel::utils
