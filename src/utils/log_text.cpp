#include "utils/log_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <optional>

namespace varnel::utils {
namespace {

constexpr std::string_view kMask = "***";

struct Character {
  uint32_t code = 0;
  size_t bytes = 0;
};

struct Utf8Form {
  uint8_t mask;
  uint8_t lead;
  size_t bytes;
  uint32_t smallest;  ///< a lower code in this form is overlong, hence invalid
};

constexpr std::array<Utf8Form, 4> kForms = {{
    {0x80, 0x00, 1, 0},
    {0xE0, 0xC0, 2, 0x80},
    {0xF0, 0xE0, 3, 0x800},
    {0xF8, 0xF0, 4, 0x10000},
}};

const Utf8Form* FormOf(uint8_t lead) {
  for (const Utf8Form& form : kForms) {
    if ((lead & form.mask) == form.lead) {
      return &form;
    }
  }
  return nullptr;
}

/// The character that the text begins with; nothing when its bytes are no UTF-8.
std::optional<Character> FirstCharacter(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text.front());
  const Utf8Form* form = FormOf(lead);
  if (form == nullptr || text.size() < form->bytes) {
    return std::nullopt;
  }
  uint32_t code = lead & static_cast<uint8_t>(~form->mask);
  for (const char c : text.substr(1, form->bytes - 1)) {
    const auto byte = static_cast<uint8_t>(c);
    if ((byte & 0xC0U) != 0x80U) {
      return std::nullopt;
    }
    code = (code << 6U) | (byte & 0x3FU);
  }
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < form->smallest || code > 0x10FFFF || surrogate) {
    return std::nullopt;
  }
  return Character{code, form->bytes};
}

bool IsHarmless(uint32_t code) {
  const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
  const bool line_break = code == 0x2028 || code == 0x2029;
  const bool direction = (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
  return !control && !line_break && !direction;
}

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
    const std::optional<Character> character = FirstCharacter(rest);
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
