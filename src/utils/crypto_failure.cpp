#include "utils/crypto_failure.h"

#include <openssl/err.h>

#include <array>
#include <stdexcept>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::utils {
namespace {

constexpr const char* kTag = "CRYPTO";

}  // namespace

void ThrowCryptoFailure(const std::string& text, std::string_view reason) {
  VLOG_ERROR(kTag, "{}: {}", LogText(text), reason);
  throw std::runtime_error(text);
}

void ThrowCryptoFailure(const std::string& text) {
  std::array<char, 256> reason{};
  ERR_error_string_n(ERR_peek_last_error(), reason.data(), reason.size());
  ERR_clear_error();
  ThrowCryptoFailure(text, reason.data());
}

}  // namespace varnel::utils
