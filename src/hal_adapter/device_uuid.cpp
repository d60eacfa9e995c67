#include "hal_adapter/device_uuid.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>
#include <random>

#include "utils/owned.h"

namespace varnel::hal_adapter {
namespace {

using UuidBytes = std::array<uint8_t, 16>;
using Digest = utils::Owned<EVP_MD, EVP_MD_free>;

/// Sets version and variant (RFC 4122) and writes the hyphenated form.
std::string Finish(UuidBytes bytes, uint8_t version) {
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | (version << 4));
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);
  std::string text;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += fmt::format("{:02x}", bytes[i]);
  }
  return text;
}

}  // namespace

std::optional<std::string> NameUuid(std::string_view name) {
  const Digest sha1(EVP_MD_fetch(nullptr, "SHA1", nullptr));
  std::array<uint8_t, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  if (!sha1 ||
      EVP_Digest(name.data(), name.size(), hash.data(), &length, sha1.get(), nullptr) != 1) {
    return std::nullopt;
  }
  UuidBytes bytes{};
  std::copy_n(hash.begin(), bytes.size(), bytes.begin());
  return Finish(bytes, 5);
}

std::string RandomUuid(uint32_t seed) {
  std::mt19937 generator(seed);
  std::uniform_int_distribution<int> byte(0, 255);
  UuidBytes bytes{};
  std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(byte(generator)); });
  return Finish(bytes, 4);
}

}  // namespace varnel::hal_adapter
