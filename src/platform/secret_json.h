#pragma once

#include <string_view>

#include "utils/secret.h"

/// Reads JSON whose texts are secrets. A JSON library keeps copies of what it reads in buffers that
/// nobody can wipe, so it gets to see only the structure; the texts are decoded here.
namespace varnel::platform {

enum class [[nodiscard]] SecretJsonStatus{kFound, kInvalid, kNoString};

/// The string member `name` of the object in `text`; of members of the same name the last one
/// counts. kInvalid: no JSON, not UTF-8 throughout, or no object; kNoString: the member is missing
/// or of another type.
[[nodiscard]] SecretJsonStatus read_string_member(std::string_view text, std::string_view name,
                                                  utils::SecretString& value);

}  // namespace varnel::platform
