#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace varnel::utils {

struct Utf8Character {
  uint32_t code = 0;
  size_t bytes = 0;
};

/// The character that the text, which is not empty, begins with; nothing when its bytes are no
/// UTF-8.
[[nodiscard]] std::optional<Utf8Character> FirstCharacter(std::string_view text);

/// Whether a character neither controls a terminal, nor breaks a line, nor turns the direction of
/// what follows.
[[nodiscard]] bool IsHarmless(uint32_t code);

/// Writes a code up to 0x10FFFF in one to four bytes; returns how many.
size_t PutUtf8(uint32_t code, char* out);

}  // namespace varnel::utils
