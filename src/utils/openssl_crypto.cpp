#include "utils/openssl_crypto.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <utility>

#include "utils/crypto_failure.h"
#include "utils/log.h"
#include "utils/salted_file.h"

namespace varnel::utils {
namespace {

constexpr const char* kTag = "CRYPTO";
constexpr size_t kSaltSize = 8;

/// Cheap from the second time on.
void InitializeLibrary() {
  constexpr uint64_t kAlgorithms = OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS;
  if (OPENSSL_init_crypto(kAlgorithms, nullptr) != 1 ||
      OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr) != 1) {
    VLOG_ERROR(kTag, "libcrypto could not be initialised, encryption will fail.");
  }
}

}  // namespace

OpenSSLCrypto::OpenSSLCrypto(std::string name, std::string_view password, uint32_t iterations,
                             SaltMode mode, std::vector<uint8_t> salt)
    : name_(std::move(name)),
      password_(password),
      iterations_(iterations),
      mode_(mode),
      salt_(std::move(salt)) {
  InitializeLibrary();
  VLOG_INFO(kTag, "OpenSSL crypto '{}' initialization.", name_);
}

OpenSSLCrypto::~OpenSSLCrypto() {
  VLOG_INFO(kTag, "OpenSSL crypto '{}' deinitialization.", name_);
}

void OpenSSLCrypto::EncryptFile(const std::filesystem::path& input,
                                const std::filesystem::path& output) {
  ERR_clear_error();  // what others left in this thread's queue is not our reason
  const Material material = NextMaterial();
  WriteSaltedFile(input, output, material.salt, material.key);
}

std::vector<uint8_t> OpenSSLCrypto::Salt() const {
  const MutexLock lock(mutex_);
  return salt_;
}

OpenSSLCrypto::Material OpenSSLCrypto::NextMaterial() {
  const MutexLock lock(mutex_);
  RenewSalt();
  if (mode_ == SaltMode::kRandomPerFile) {
    return {salt_, DeriveKey()};
  }
  if (key_.Text().empty()) {
    key_ = DeriveKey();
  }
  return {salt_, SecretString(key_.Text())};
}

void OpenSSLCrypto::RenewSalt() {
  if (mode_ != SaltMode::kRandomPerFile && (mode_ != SaltMode::kRandomOnce || salt_made_)) {
    return;
  }
  std::vector<uint8_t> salt(kSaltSize);
  if (RAND_bytes(salt.data(), static_cast<int>(salt.size())) != 1) {
    ThrowCryptoFailure("generate random salt failed");
  }
  salt_ = std::move(salt);
  salt_made_ = true;
}

SecretString OpenSSLCrypto::DeriveKey() const {
  const std::string_view password = password_.Text();
  SecretString key(kFileKeySize);
  // The library takes all sizes as int, and refuses 0 iterations itself.
  const bool fits = std::in_range<int>(password.size()) && std::in_range<int>(salt_.size()) &&
                    std::in_range<int>(iterations_);
  if (!fits ||
      PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt_.data(),
                        static_cast<int>(salt_.size()), static_cast<int>(iterations_), EVP_sha256(),
                        kFileKeySize, reinterpret_cast<uint8_t*>(key.Data())) != 1) {
    ThrowCryptoFailure("derive the KAY and IV using PBKDF2 falied");
  }
  return key;
}

}  // namespace varnel::utils
