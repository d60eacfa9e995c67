#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace varnel::service {

/// The cloud's words about a firmware.
struct FirmwareDescription {
  static constexpr size_t kMaxBytes = size_t{1} << 20U;  ///< of its file
  static constexpr uint64_t kMaxSize = uint64_t{1} << 40U;

  std::string version{};
  std::string fullversion{};  ///< part of a file's name: printable, without "/", no "." first
  uint64_t size = 0;          ///< bytes, 1 to kMaxSize
  std::string md5{};          ///< 32 lower-case hexadecimal digits
  nlohmann::json release_notes{};
  std::string signature{};  ///< base64 of Ed25519 over the firmware's SHA-256; empty: none

  /// The same bytes are meant.
  [[nodiscard]] bool IsSameFirmware(const FirmwareDescription& other) const {
    return fullversion == other.fullversion && size == other.size && md5 == other.md5 &&
           signature == other.signature;
  }
};

/// Nothing for one that is broken, which is logged.
[[nodiscard]] std::optional<FirmwareDescription> ReadFirmwareDescription(std::string_view text);

}  // namespace varnel::service
