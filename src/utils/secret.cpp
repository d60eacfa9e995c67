#include "utils/secret.h"

#include <openssl/crypto.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>
#include <utility>

namespace varnel::utils {

void Wipe(void* bytes, size_t size) noexcept {
  if (size > 0) {
    OPENSSL_cleanse(bytes, size);
  }
}

SecretString::SecretString(size_t size) : capacity_(size), size_(size) {
  if (size == 0) {
    return;
  }
  void* pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) {
    throw std::bad_alloc();
  }
  // Core files are collected for support; a kernel that cannot leave the pages out is no reason to
  // fail.
  (void)::madvise(pages, size, MADV_DONTDUMP);
  bytes_ = static_cast<char*>(pages);
}

SecretString::SecretString(std::string_view text) : SecretString(text.size()) {
  std::copy(text.begin(), text.end(), bytes_);
}

SecretString::~SecretString() {
  if (bytes_ != nullptr) {
    Wipe(bytes_, capacity_);
    ::munmap(bytes_, capacity_);
  }
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
