#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace varnel::platform {

/// Copies what fits into `size` bytes, the terminating NUL included; `size` is not 0.
inline void copy_text(char* out, size_t size, std::string_view text) {
  const size_t length = std::min(text.size(), size - 1);
  std::copy_n(text.begin(), length, out);
  out[length] = '\0';
}

template <size_t Size>
void copy_text(char (&out)[Size], std::string_view text) {
  copy_text(out, Size, text);
}

}  // namespace varnel::platform
