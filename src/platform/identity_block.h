#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "hal_interface/hal_status.h"

namespace varnel::platform {

/// Where the identity block lies: 1024 bytes of a file or block device.
struct IdentityStorage {
  std::string device = "/dev/mmcblk0";
  uint64_t offset = 26'624;
  std::string key_file;  ///< of an encrypted block; empty: there is none
};

/// What reading from the identity block can end with, besides success.
inline constexpr hal_adapter::HalStatus kIdentityNullArgument = -1;
inline constexpr hal_adapter::HalStatus kIdentityReadFailed = -2;  ///< or the block is cut short
/// The block is encrypted and there is no usable key file.
inline constexpr hal_adapter::HalStatus kIdentityNoKey = -3;
inline constexpr hal_adapter::HalStatus kIdentityNoMagic = -4;
inline constexpr hal_adapter::HalStatus kIdentityNoJson = -5;
/// The key is another one, or the block was changed.
inline constexpr hal_adapter::HalStatus kIdentityNotAuthentic = -6;
/// Missing, no string, longer than the caller's field, or with characters that fit into no line of
/// text (controls, line ends, changes of direction). A value is never cut.
inline constexpr hal_adapter::HalStatus kIdentityNoValue = -7;
inline constexpr hal_adapter::HalStatus kIdentityOtherFormat = -8;

/// What a status means, for people.
const char* identity_error_string(hal_adapter::HalStatus status);

/// Reads the string member `key` of the block's JSON object into `out`, NUL-terminated; `out` is
/// untouched on failure. The storage is read anew each time.
[[nodiscard]] hal_adapter::HalStatus read_identity_value(const IdentityStorage* storage,
                                                         const char* key, char* out, size_t size);

}  // namespace varnel::platform
