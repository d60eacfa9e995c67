#include "service/agent/auth/aes.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <exception>
#include <memory>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

using Context = utils::Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using Bytes = std::vector<unsigned char>;

constexpr const char* kTag = "MA_AUTH";
constexpr size_t kKeyBytes = 32;
constexpr size_t kBlock = 16;
constexpr size_t kMaxBytes = size_t{16} << 20U;

const unsigned char* BytesOf(const utils::SecretString& secret) {
  return reinterpret_cast<const unsigned char*>(secret.Text().data());
}

bool Report(const char* what) {
  ERR_clear_error();
  VLOG_ERROR(kTag, "{}", what);
  return false;
}

/// What one direction calls, and its words for what goes wrong.
struct Direction {
  decltype(&EVP_EncryptInit_ex) init;
  decltype(&EVP_EncryptUpdate) update;
  decltype(&EVP_EncryptFinal_ex) final;
  const char* no_context;
  const char* no_init;
  const char* no_update;
  const char* no_final;
};
constexpr Direction kEncrypt{EVP_EncryptInit_ex,
                             EVP_EncryptUpdate,
                             EVP_EncryptFinal_ex,
                             "AesEncrypt: failed to create EVP_CIPHER_CTX",
                             "AesEncrypt: EVP_EncryptInit_ex failed",
                             "AesEncrypt: EVP_EncryptUpdate failed",
                             "AesEncrypt: EVP_EncryptFinal_ex failed"};
constexpr Direction kDecrypt{EVP_DecryptInit_ex,
                             EVP_DecryptUpdate,
                             EVP_DecryptFinal_ex,
                             "AesDecrypt: failed to create EVP_CIPHER_CTX",
                             "AesDecrypt: EVP_DecryptInit_ex failed",
                             "AesDecrypt: EVP_DecryptUpdate failed",
                             "AesDecrypt: EVP_DecryptFinal_ex failed"};

/// @param out has room for the input and a block; `size` gets what is used of it
bool Run(const Direction& direction, const utils::SecretString& key, const unsigned char* iv,
         std::span<const unsigned char> in, unsigned char* out, size_t& size) {
  const Context context(EVP_CIPHER_CTX_new());
  if (!context) return Report(direction.no_context);
  if (key.Text().size() != kKeyBytes ||
      direction.init(context.get(), EVP_aes_256_cbc(), nullptr, BytesOf(key), iv) != 1) {
    return Report(direction.no_init);
  }
  int written = 0;
  if (in.size() > kMaxBytes ||
      direction.update(context.get(), out, &written, in.data(), static_cast<int>(in.size())) != 1) {
    return Report(direction.no_update);
  }
  int rest = 0;
  if (direction.final(context.get(), out + written, &rest) != 1) return Report(direction.no_final);
  size = static_cast<size_t>(written) + static_cast<size_t>(rest);
  return true;
}

bool LooksLikeDigits(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](unsigned char c) { return std::isxdigit(c) != 0 || std::isspace(c) != 0; });
}

std::optional<utils::SecretString> KeyOfDigits(std::string_view digits) {
  utils::SecretString key(kKeyBytes);
  for (size_t i = 0; i < kKeyBytes; ++i) {
    unsigned char byte = 0;
    const char* start = digits.data() + 2 * i;
    const auto [end, error] = std::from_chars(start, start + 2, byte, 16);
    if (error != std::errc{} || end != start + 2) return std::nullopt;
    key.Data()[i] = static_cast<char>(byte);
  }
  return key;
}

}  // namespace

std::optional<Bytes> AesEncrypt(const utils::SecretString& key,
                                std::span<const unsigned char> plain) {
  if (plain.empty()) {
    VLOG_ERROR(kTag, "AesEncrypt: empty plaintext");
    return std::nullopt;
  }
  try {
    Bytes encrypted(kBlock + plain.size() + kBlock);
    size_t size = 0;
    if (RAND_bytes(encrypted.data(), static_cast<int>(kBlock)) != 1) {
      (void)Report(kEncrypt.no_init);
      return std::nullopt;
    }
    if (!Run(kEncrypt, key, encrypted.data(), plain, encrypted.data() + kBlock, size))
      return std::nullopt;
    encrypted.resize(kBlock + size);
    return encrypted;
  } catch (const std::exception&) {
    VLOG_ERROR(kTag, "AesEncrypt error: %s");  // so it is known; the only cause is a lack of memory
    return std::nullopt;
  }
}

std::optional<utils::SecretString> AesDecrypt(const utils::SecretString& key,
                                              std::span<const unsigned char> encrypted) {
  if (encrypted.size() < 2 * kBlock) {
    (void)Report(kDecrypt.no_final);
    return std::nullopt;
  }
  const auto content = encrypted.subspan(kBlock);
  utils::SecretString plain(content.size() + kBlock);
  size_t size = 0;
  if (!Run(kDecrypt, key, encrypted.data(), content, reinterpret_cast<unsigned char*>(plain.Data()),
           size)) {
    return std::nullopt;
  }
  plain.Shrink(size);
  return plain;
}

utils::SharedSecret LoadAesKey(const std::filesystem::path& file) {
  if (file.empty()) return nullptr;
  std::string text = utils::ReadSmallFile(file, 2 * kKeyBytes + 2).value_or("");
  std::optional<utils::SecretString> key;
  // Half of the digits is a file that was cut short.
  if (text.size() == kKeyBytes && !LooksLikeDigits(text)) {
    key.emplace(text);
  } else {
    const size_t end = text.find_last_not_of("\r\n");
    const std::string_view digits(text.data(), end == text.npos ? 0 : end + 1);
    if (digits.size() == 2 * kKeyBytes) key = KeyOfDigits(digits);
  }
  utils::Wipe(text);
  if (key) return std::make_shared<const utils::SecretString>(std::move(*key));
  VLOG_ERROR(kTag, "The credential key {} is missing or has not 256 bits", file.string());
  return nullptr;
}

}  // namespace varnel::service
