#include "virtual_board/identity/device_key.h"

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>

namespace varnel::board {

namespace {

using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Memory = std::unique_ptr<BIO, decltype(&BIO_free)>;

Key MakeKey(KeyKind kind) {
  constexpr unsigned kRsaBits = 1024;
  return {kind == KeyKind::kRsa ? EVP_RSA_gen(kRsaBits) : EVP_EC_gen("P-256"), EVP_PKEY_free};
}

std::string FromBase64(const std::string& text) {
  std::string bytes(text.size(), '\0');
  const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                   reinterpret_cast<const unsigned char*>(text.data()),
                                   static_cast<int>(text.size()));
  bytes.resize(size < 0 ? 0 : static_cast<size_t>(size));
  return bytes;
}

}  // namespace

std::string NewPrivateKey(KeyKind kind) {
  const Key key = MakeKey(kind);
  unsigned char* der = nullptr;
  const int size = key ? i2d_PrivateKey(key.get(), &der) : -1;
  if (size <= 0) throw std::runtime_error("no private key can be made");
  std::string text(static_cast<size_t>(size + 2) / 3 * 4 + 1, '\0');
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), der, size);
  OPENSSL_clear_free(der, static_cast<size_t>(size));
  text.pop_back();
  return text;
}

std::string PublicKeyPem(const std::string& private_key) {
  const std::string der = FromBase64(private_key);
  const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
  const Key key(d2i_AutoPrivateKey(nullptr, &bytes, static_cast<long>(der.size())), EVP_PKEY_free);
  const Memory memory(BIO_new(BIO_s_mem()), BIO_free);
  if (!key || !memory || PEM_write_bio_PUBKEY(memory.get(), key.get()) != 1) {
    throw std::runtime_error("the identity's private key is none");
  }
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return {text, static_cast<size_t>(size)};
}

}  // namespace varnel::board
