#include "utils/secret_names.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

namespace varnel::utils {
namespace {

/// One bit for each letter that is in the text, whatever its case; digits have none.
constexpr uint32_t LettersOf(std::string_view text) {
  uint32_t letters = 0;
  for (const char c : text) {
    const auto letter = static_cast<unsigned>((c | 0x20) - 'a');
    if (letter < 26U) letters |= 1U << letter;
  }
  return letters;
}

struct Word {
  constexpr explicit Word(std::string_view of) : text(of), letters(LettersOf(of)) {}
  std::string_view text;
  uint32_t letters;  ///< without all of them a name cannot contain the word
};

constexpr std::array kContained{Word("token"),      Word("pass"),   Word("secret"), Word("private"),
                                Word("credential"), Word("auth"),   Word("pwd"),    Word("psk"),
                                Word("signature"),  Word("cookie"), Word("salt")};
constexpr std::array kWhole{Word("pw"), Word("code"), Word("sign"), Word("pin")};
/// "key" itself, "accesskey", "apikey"; with something behind it only these two.
constexpr Word kKey("key");
constexpr std::array kKeyContained{Word("accesskey"), Word("apikey")};

bool MayHold(uint32_t letters, const Word& word) {
  return (word.letters & ~letters) == 0;
}

bool MayNameSecret(uint32_t letters) {
  const auto may = [letters](const Word& word) { return MayHold(letters, word); };
  return may(kKey) || std::any_of(kContained.begin(), kContained.end(), may) ||
         std::any_of(kWhole.begin(), kWhole.end(), may);
}

bool IsNameOfSecret(std::string_view plain) {
  const auto contains = [plain](const Word& word) { return plain.find(word.text) != plain.npos; };
  const auto is = [plain](const Word& word) { return plain == word.text; };
  return plain.ends_with(kKey.text) ||
         std::any_of(kContained.begin(), kContained.end(), contains) ||
         std::any_of(kKeyContained.begin(), kKeyContained.end(), contains) ||
         std::any_of(kWhole.begin(), kWhole.end(), is);
}

}  // namespace

bool NamesSecret(std::string_view name) {
  if (!MayNameSecret(LettersOf(name))) return false;
  std::string plain;
  plain.reserve(name.size());
  for (const char c : name) {
    const char low = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    if ((low >= 'a' && low <= 'z') || (low >= '0' && low <= '9')) plain += low;
  }
  // One of several: "wep_key0".
  plain.erase(plain.find_last_not_of("0123456789") + 1);
  return IsNameOfSecret(plain);
}

bool IsErrorCode(std::string_view name, std::string_view value) {
  return name == "code" && value.find_first_not_of("-0123456789. \t\r\n") == value.npos;
}

}  // namespace varnel::utils
