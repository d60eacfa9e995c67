#include "utils/base64.h"

#include <openssl/evp.h>

#include <limits>

namespace varnel::utils {
namespace {

/// The library counts in int.
constexpr size_t kMaxText = std::numeric_limits<int>::max() / 2;

size_t PaddingOf(std::string_view text) {
  return text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
}

/// How many bytes were written to `out`, which has room for three of four characters; nothing for
/// what is no base64.
std::optional<size_t> DecodeLine(std::string_view text, unsigned char* out) {
  // Padding within the text is no padding; the library takes it for zeros.
  const size_t padding = PaddingOf(text);
  if (text.empty() || text.size() % 4 != 0 || text.size() > kMaxText ||
      text.find('=') < text.size() - padding) {
    return std::nullopt;
  }
  const int size = EVP_DecodeBlock(out, reinterpret_cast<const unsigned char*>(text.data()),
                                   static_cast<int>(text.size()));
  if (size < 0) return std::nullopt;
  return static_cast<size_t>(size) - padding;
}

std::string WithoutLineBreaks(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (const char c : text)
    if (c != '\r' && c != '\n') line += c;
  return line;
}

}  // namespace

std::string EncodeBase64(std::span<const unsigned char> bytes) {
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                   static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(size));
  return text;
}

std::optional<std::vector<unsigned char>> DecodeBase64(std::string_view text) {
  const std::string line = WithoutLineBreaks(text);
  std::vector<unsigned char> bytes(line.size() / 4 * 3);
  const auto size = DecodeLine(line, bytes.data());
  if (!size) return std::nullopt;
  bytes.resize(*size);
  return bytes;
}

std::optional<SecretString> DecodeSecretBase64(std::string_view text) {
  if (text.size() < 4) return std::nullopt;
  SecretString bytes(text.size() / 4 * 3);
  const auto size = DecodeLine(text, reinterpret_cast<unsigned char*>(bytes.Data()));
  if (!size) return std::nullopt;
  bytes.Shrink(*size);
  return bytes;
}

}  // namespace varnel::utils
