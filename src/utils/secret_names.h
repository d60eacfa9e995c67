#pragma once

#include <string_view>

namespace varnel::utils {

/// Whether a value of this name (a member, a variable, an option, a header) is taken for a secret.
/// Case and all but letters and digits do not matter. Cheap enough for every word of a log.
[[nodiscard]] bool NamesSecret(std::string_view name);

/// "code" with a number is what an answer says of an error, not a code that lets somebody in.
[[nodiscard]] bool IsErrorCode(std::string_view name, std::string_view value);

}  // namespace varnel::utils
