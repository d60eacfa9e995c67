#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace varnel::platform {

/// Where the identity block lies: 1024 bytes of a file or block device.
struct IdentityStorage {
  std::string device;
  uint64_t offset = 0;
  std::string key_file;  ///< of an encrypted block; empty: there is none
};

/// How reading from the identity block ended.
enum class [[nodiscard]] IdentityStatus : int32_t{
    kSuccess = 0,
    kNullArgument = -1,
    kReadFailed = -2,  ///< or the block is cut short
    /// The block is encrypted and there is no usable key file.
    kNoKey = -3,
    kNoMagic = -4,
    kNoJson = -5,
    /// The key is another one, or the block was changed.
    kNotAuthentic = -6,
    /// Missing, no string, longer than the caller's field, or with characters that fit into no line
    /// of text (controls, line ends, changes of direction). A value is never cut.
    kNoValue = -7,
    kOtherFormat = -8,
};

/// What a status means, for people.
const char* identity_error_string(IdentityStatus status);

/// Reads the string member `key` of the block's JSON object into `out`, NUL-terminated; `out` is
/// untouched on failure. The storage is read anew each time.
IdentityStatus read_identity_value(const IdentityStorage* storage, const char* key, char* out,
                                   size_t size);

}  // namespace varnel::platform
