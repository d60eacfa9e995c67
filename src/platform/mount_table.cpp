#include "platform/mount_table.h"

#include <algorithm>

namespace varnel::platform {
namespace {

/// Takes the text up to the separator, and the separator, from the front of `rest`.
std::string_view TakeUntil(char separator, std::string_view& rest) {
  const std::string_view taken = rest.substr(0, rest.find(separator));
  rest.remove_prefix(std::min(taken.size() + 1, rest.size()));
  return taken;
}

/// The kernel writes a space, tab, line end or backslash as a backslash and three octal digits.
bool IsEscape(std::string_view text) {
  constexpr std::string_view kOctal = "01234567";
  return text.size() >= 4 && text[0] == '\\' && text[1] <= '3' &&
         text.substr(1, 3).find_first_not_of(kOctal) == std::string_view::npos;
}

char EscapedByte(std::string_view text) {
  return static_cast<char>((text[1] - '0') << 6 | (text[2] - '0') << 3 | (text[3] - '0'));
}

std::string Decode(std::string_view field) {
  std::string text;
  while (!field.empty()) {
    const bool escape = IsEscape(field);
    text += escape ? EscapedByte(field) : field[0];
    field.remove_prefix(escape ? 4 : 1);
  }
  return text;
}

}  // namespace

std::optional<std::string> mount_directory_of(std::string_view node, std::string_view mounts) {
  while (!mounts.empty()) {
    std::string_view line = TakeUntil('\n', mounts);
    if (line.find(node) == std::string_view::npos) continue;
    TakeUntil(' ', line);
    const std::string_view directory = TakeUntil(' ', line);
    if (directory.empty()) return std::nullopt;
    return Decode(directory);
  }
  return std::nullopt;
}

}  // namespace varnel::platform
