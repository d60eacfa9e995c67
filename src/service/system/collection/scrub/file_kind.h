#pragma once

#include <cstddef>
#include <string_view>

namespace varnel::service {

/// What a file is, as far as it matters for what is in it.
enum class FileKind {
  kText,     ///< also what is not known
  kCounted,  ///< binary, with places in it that are counted in bytes: core dump, archive, journal
  kPicture,  ///< picture or film
  kGzip,
  kSealed,  ///< compressed so that nobody can look into it here
  kPrivateKey,
};

/// How much of its beginning is wanted to tell it.
inline constexpr size_t kFileHead = 512;

[[nodiscard]] FileKind KindOf(std::string_view head);

/// By its name it is nothing but secret.
[[nodiscard]] bool IsSecretFile(std::string_view name);

}  // namespace varnel::service
