#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace varnel::service {

inline constexpr size_t kLetterWidth = 8;
inline constexpr size_t kLetterHeight = 16;

/// A letter's rows from the top; the highest bit is the leftmost pixel.
using Letter = std::array<uint8_t, kLetterHeight>;

/// The shape of a printable ASCII character; a filled block for every other byte.
[[nodiscard]] const Letter& LetterShape(char character);

}  // namespace varnel::service
