#include "service/agent/auth/signature.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <random>
#include <stdexcept>
#include <vector>

#include "utils/base64.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

using Key = utils::Owned<EVP_PKEY, EVP_PKEY_free>;
using Context = utils::Owned<EVP_MD_CTX, EVP_MD_CTX_free>;

[[noreturn]] void Fail(const char* why) {
  ERR_clear_error();
  throw std::runtime_error(std::string("签名失败: ") + why);
}

Key LoadPrivateKey(std::string_view text) {
  const auto der = utils::DecodeSecretBase64(text);
  if (!der) return nullptr;
  const auto* bytes = reinterpret_cast<const unsigned char*>(der->Text().data());
  return Key(d2i_AutoPrivateKey(nullptr, &bytes, static_cast<long>(der->Text().size())));
}

}  // namespace

std::string MakeNonce() {
  std::random_device seed;
  std::mt19937 generator(seed());
  return std::to_string(std::uniform_int_distribution<int>(100'000, 999'999)(generator));
}

std::string SignedText(const std::string& serial_number, const std::string& operate,
                       const std::string& nonce) {
  return serial_number + (operate.empty() ? "" : "&operate=" + operate) + "&nonce=" + nonce;
}

std::string Sign(const std::string& text, std::string_view key_text) {
  const Key key = LoadPrivateKey(key_text);
  if (!key) Fail("failed to load private key");
  const Context context(EVP_MD_CTX_new());
  if (!context) Fail("failed to create EVP_MD_CTX");
  if (EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1)
    Fail("failed to initialize signature");
  if (EVP_DigestSignUpdate(context.get(), text.data(), text.size()) != 1)
    Fail("failed to update signature data");
  size_t length = 0;
  if (EVP_DigestSignFinal(context.get(), nullptr, &length) != 1)
    Fail("failed to get signature length");
  std::vector<unsigned char> signature(length);
  if (EVP_DigestSignFinal(context.get(), signature.data(), &length) != 1) Fail("failed to sign");
  signature.resize(length);
  return utils::EncodeBase64(signature);
}

bool Verify(const std::string& text, const std::string& signature,
            std::span<const unsigned char> public_key) {
  const auto* bytes = public_key.data();
  const Key key(d2i_PUBKEY(nullptr, &bytes, static_cast<long>(public_key.size())));
  const Context context(EVP_MD_CTX_new());
  const auto decoded = utils::DecodeBase64(signature);
  const bool good =
      key && context && decoded &&
      EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
      EVP_DigestVerify(context.get(), decoded->data(), decoded->size(),
                       reinterpret_cast<const unsigned char*>(text.data()), text.size()) == 1;
  ERR_clear_error();
  return good;
}

}  // namespace varnel::service
