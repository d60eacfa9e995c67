#include "platform/identity_cipher.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <charconv>

#include "platform/read_at.h"
#include "utils/owned.h"

namespace varnel::platform {
namespace {

using utils::SecretString;
using Cipher = utils::Owned<EVP_CIPHER, EVP_CIPHER_free>;
using Context = utils::Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;

constexpr size_t kKeySize = 32;
constexpr size_t kHexKeySize = 2 * kKeySize;

const uint8_t* Bytes(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

uint8_t* Bytes(SecretString& text) {
  return reinterpret_cast<uint8_t*>(text.Data());
}

bool IsRegular(const utils::UniqueFd& file) {
  struct stat info {};
  return file && ::fstat(file.Get(), &info) == 0 && S_ISREG(info.st_mode);
}

std::optional<SecretString> FromHex(std::string_view digits) {
  SecretString key(digits.size() / 2);
  for (size_t i = 0; i < key.Text().size(); ++i) {
    uint8_t byte = 0;
    const char* end = digits.data() + 2 * i + 2;
    if (std::from_chars(end - 2, end, byte, 16).ptr != end) return std::nullopt;
    Bytes(key)[i] = byte;
  }
  return key;
}

}  // namespace

std::optional<SecretString> read_identity_key(const std::string& path) {
  const utils::UniqueFd file = open_for_reading(path);
  if (!IsRegular(file)) return std::nullopt;
  SecretString content(kHexKeySize + 2);  // one more than a key, to notice what is longer
  const ssize_t size = read_at(file, content, 0);
  if (size < 0) return std::nullopt;
  content.Shrink(static_cast<size_t>(size));
  if (content.Text().size() == kKeySize) return content;
  if (content.Text().ends_with('\n')) content.Shrink(content.Text().size() - 1);
  if (content.Text().size() != kHexKeySize) return std::nullopt;
  return FromHex(content.Text());
}

std::optional<SecretString> open_sealed(const SecretString& key, std::string_view nonce,
                                        std::string_view sealed, std::string_view tag) {
  const Cipher cipher(EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr));
  const Context context(EVP_CIPHER_CTX_new());
  SecretString text(sealed.size());
  SecretString tag_copy(tag);  // the library takes it through a pointer to what may change
  int size = 0;
  // GCM's nonce is 12 bytes unless told otherwise; nothing is padded, so the end adds no bytes.
  const bool opened =
      cipher && context && key.Text().size() == kKeySize && nonce.size() == kIdentityNonceSize &&
      EVP_DecryptInit_ex2(context.get(), cipher.get(), Bytes(key.Text()), Bytes(nonce), nullptr) ==
          1 &&
      EVP_DecryptUpdate(context.get(), Bytes(text), &size, Bytes(sealed),
                        static_cast<int>(sealed.size())) == 1 &&
      EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, static_cast<int>(tag.size()),
                          tag_copy.Data()) == 1 &&
      EVP_DecryptFinal_ex(context.get(), Bytes(text) + size, &size) == 1;
  ERR_clear_error();
  if (!opened) return std::nullopt;
  return text;
}

}  // namespace varnel::platform
