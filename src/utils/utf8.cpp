#include "utils/utf8.h"

#include <array>

namespace varnel::utils {
namespace {

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

}  // namespace

std::optional<Utf8Character> FirstCharacter(std::string_view text) {
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
  return Utf8Character{code, form->bytes};
}

bool IsHarmless(uint32_t code) {
  const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
  const bool line_break = code == 0x2028 || code == 0x2029;
  const bool direction = (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
  return !control && !line_break && !direction;
}

size_t PutUtf8(uint32_t code, char* out) {
  const size_t bytes = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
  for (size_t i = bytes - 1; i > 0; --i) {
    out[i] = static_cast<char>(0x80U | (code & 0x3FU));
    code >>= 6U;
  }
  out[0] = static_cast<char>(kForms[bytes - 1].lead | code);
  return bytes;
}

}  // namespace varnel::utils
