#include "utils/random_password.h"

#include <openssl/rand.h>

#include <cstdint>
#include <utility>

#include "utils/log.h"
#include "utils/secret.h"

namespace varnel::utils {
namespace {

constexpr const char* kTag = "CRYPTO";
constexpr const char* kFallbackPassword = "zed_key";

bool FillRandom(SecretString& bytes) {
  const size_t size = bytes.Text().size();
  return std::in_range<int>(size) &&
         RAND_bytes(reinterpret_cast<uint8_t*>(bytes.Data()), static_cast<int>(size)) == 1;
}

std::string ToHex(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());  // once, so that growing leaves no copies behind
  for (const char byte : bytes) {
    const auto value = static_cast<uint8_t>(byte);
    text += kDigits[value >> 4U];
    text += kDigits[value & 0xFU];
  }
  return text;
}

}  // namespace

std::string RandomPassword(std::string_view encoding, size_t length) {
  if (length == 0) {
    return "";
  }
  SecretString bytes(length);
  if (!FillRandom(bytes)) {
    VLOG_ERROR(kTag, "No random bytes for a password, the fixed one is used.");
    return kFallbackPassword;
  }
  return encoding == "hex" ? ToHex(bytes.Text()) : "";
}

}  // namespace varnel::utils
