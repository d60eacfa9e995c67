#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "utils/owned.h"
#include "utils/secret.h"

namespace varnel::platform {

/// Never waits, whatever the path names; an empty handle when it cannot be opened.
[[nodiscard]] utils::UniqueFd open_for_reading(const std::string& path);

/// Fills `buffer` with the bytes at `offset`. How many there were, fewer at the end of the file;
/// -1 on an error.
[[nodiscard]] ssize_t read_at(const utils::UniqueFd& file, utils::SecretString& buffer,
                              uint64_t offset);

}  // namespace varnel::platform
