#include "virtual_board/identity/block.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "virtual_board/common/fd.h"
#include "virtual_board/common/files.h"

namespace varnel::board {

namespace {

using Sealing = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

constexpr char kMagic[] = {'\x65', '\x1E', '\x8A', '\xBD'};
constexpr size_t kBlock = 1024;
constexpr size_t kHead = 5;
constexpr size_t kNonce = 12;
constexpr size_t kTag = 16;
constexpr size_t kKey = 32;

std::string Block(char format, const std::string& rest) {
  return std::string(kMagic, sizeof kMagic) + format + rest;
}

std::string Padded(const std::string& payload, size_t room) {
  if (payload.size() > room) {
    throw std::runtime_error("the identity is " + std::to_string(payload.size() - room) +
                             " bytes too long for its block");
  }
  return payload + std::string(room - payload.size(), '\0');
}

unsigned char* Bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

/// Ciphertext and tag.
std::string Seal(std::string text, std::string key, std::string nonce) {
  const Sealing sealing(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
  std::string sealed(text.size(), '\0');
  std::string tag(kTag, '\0');
  int size = 0;
  if (EVP_EncryptInit_ex(sealing.get(), EVP_aes_256_gcm(), nullptr, Bytes(key), Bytes(nonce)) !=
          1 ||
      EVP_EncryptUpdate(sealing.get(), Bytes(sealed), &size, Bytes(text),
                        static_cast<int>(text.size())) != 1 ||
      EVP_EncryptFinal_ex(sealing.get(), Bytes(sealed), &size) != 1 ||
      EVP_CIPHER_CTX_ctrl(sealing.get(), EVP_CTRL_GCM_GET_TAG, kTag, Bytes(tag)) != 1) {
    throw std::runtime_error("the identity cannot be encrypted");
  }
  return sealed + tag;
}

}  // namespace

std::string ClearIdentityBlock(const std::string& payload) {
  return Block(0, Padded(payload, kBlock - kHead));
}

std::string SealedIdentityBlock(const std::string& payload, const std::string& key) {
  if (key.size() != kKey) throw std::runtime_error("a key has 32 bytes");
  std::string nonce(kNonce, '\0');
  if (RAND_bytes(Bytes(nonce), kNonce) != 1) throw std::runtime_error("no random bytes");
  const std::string text = Padded(payload, kBlock - kHead - kNonce - kTag);
  return Block(1, nonce + Seal(text, key, nonce));
}

std::string ReadClearIdentityBlock(const std::filesystem::path& file) {
  const Fd storage(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  std::string block(kBlock, '\0');
  const ssize_t got = storage ? ::pread(storage.Get(), block.data(), kBlock, kIdentityOffset) : -1;
  if (got != static_cast<ssize_t>(kBlock) || block.compare(0, kHead, Block(0, "")) != 0) return {};
  return block.substr(kHead, block.find('\0', kHead) - kHead);
}

std::string ReadKeyFile(const std::filesystem::path& file) {
  std::string key = ReadFile(file);
  if (key.size() == kKey) return key;
  if (!key.empty() && key.back() == '\n') key.pop_back();
  if (key.size() != 2 * kKey || key.find_first_not_of("0123456789abcdefABCDEF") != key.npos) {
    throw std::runtime_error(file.string() + " holds neither 32 bytes nor 64 hexadecimal digits");
  }
  std::string bytes;
  for (size_t i = 0; i < key.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(key.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

void WriteIdentityBlock(const std::filesystem::path& file, uint64_t offset,
                        const std::string& block) {
  const Fd storage(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  const ssize_t written =
      storage ? ::pwrite(storage.Get(), block.data(), block.size(), static_cast<off_t>(offset))
              : -1;
  if (written != static_cast<ssize_t>(block.size()) || ::fsync(storage.Get()) != 0) {
    throw std::runtime_error("cannot write " + file.string() + ": " + std::strerror(errno));
  }
}

}  // namespace varnel::board
