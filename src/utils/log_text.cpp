#include "utils/log_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>

#include "utils/utf8.h"

namespace varnel::utils {
namespace {

constexpr std::string_view kMask = "***";

void AppendEscaped(std::string& line, std::string_view bytes) {
  for (const char c : bytes) {
    fmt::format_to(std::back_inserter(line), "\\x{:02x}", static_cast<uint8_t>(c));
  }
}

}  // namespace

std::string LogText(std::string_view untrusted, size_t max_bytes) {
  std::string line;
  size_t used = 0;
  while (used < untrusted.size()) {
    const std::string_view rest = untrusted.substr(used);
    const std::optional<Utf8Character> character = FirstCharacter(rest);
    const size_t bytes = character ? character->bytes : 1;
    if (used + bytes > max_bytes) {
      break;
    }
    if (character && IsHarmless(character->code)) {
      line += rest.substr(0, bytes);
    } else {
      AppendEscaped(line, rest.substr(0, bytes));
    }
    used += bytes;
  }
  return line;
}

std::string MaskSecret(std::string_view secret) {
  return std::string(secret.empty() ? "(none)" : kMask);
}

std::string MaskUrl(std::string_view url) {
  const size_t query = std::min(url.find('?'), url.size());
  const std::string_view plain = url.substr(0, query);
  const size_t scheme_end = plain.find("://");
  const size_t authority = scheme_end == std::string_view::npos ? 0 : scheme_end + 3;
  const size_t authority_end = std::min(plain.find_first_of("/#", authority), plain.size());
  const size_t at = plain.substr(authority, authority_end - authority).rfind('@');
  std::string masked(plain.substr(0, authority));
  if (at == std::string_view::npos) {
    masked += plain.substr(authority);
  } else {
    masked.append(kMask).append(plain.substr(authority + at));
  }
  if (query < url.size()) {
    masked.append("?").append(kMask);
  }
  return LogText(masked, masked.size());
}

}  // namespace varnel::utils
