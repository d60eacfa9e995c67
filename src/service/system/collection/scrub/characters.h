#pragma once

#include <string_view>

namespace varnel::service {

inline bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

/// Also the zero between the arguments and variables of a process.
inline bool IsLineEnd(char c) {
  return c == '\n' || c == '\r' || c == '\0';
}

inline bool IsLetter(char c) {
  const char low = static_cast<char>(c | 0x20);
  return low >= 'a' && low <= 'z';
}

inline bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

/// Of a name that stands without quotes.
inline bool IsNameCharacter(char c) {
  return IsLetter(c) || IsDigit(c) || c == '_' || c == '-' || c == '.';
}

inline bool IsQuote(char c) {
  return c == '"' || c == '\'';
}

}  // namespace varnel::service
