#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "service/system/collection/scrub/value_end.h"

namespace varnel::service {

/// The value of a secret in a text.
struct SecretSpan {
  size_t begin = 0;
  size_t end = 0;  ///< behind it; ValueEnd::kNotYet: the text ends before it does
  ValueEnd rest;   ///< then finds its end in what follows
};

/// The next character from `at` on by which a secret can be found; the text's size without one.
[[nodiscard]] size_t NextMark(std::string_view text, size_t at, size_t limit);

/// The secret that this mark tells of: the value of a member, variable, option or header with a
/// telling name, a bearer token, user information or query of a URL, a private key, the hash of a
/// password. It begins not before what comes in front of the mark, which has been looked at.
[[nodiscard]] std::optional<SecretSpan> SecretAt(std::string_view text, size_t mark);

}  // namespace varnel::service
