#include "utils/secret.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <utility>

namespace varnel::utils {

void Wipe(void* bytes, size_t size) noexcept {
  if (size > 0) {
    OPENSSL_cleanse(bytes, size);
  }
}

SecretString::SecretString(size_t size)
    : bytes_(std::make_unique<char[]>(size)), capacity_(size), size_(size) {}

SecretString::SecretString(std::string_view text) : SecretString(text.size()) {
  std::copy(text.begin(), text.end(), bytes_.get());
}

SecretString::~SecretString() {
  Wipe(bytes_.get(), capacity_);
}

void SecretString::Shrink(size_t size) {
  size_ = std::min(size, size_);
}

void SecretString::Swap(SecretString& other) noexcept {
  std::swap(bytes_, other.bytes_);
  std::swap(capacity_, other.capacity_);
  std::swap(size_, other.size_);
}

}  // namespace varnel::utils
