#include "service/system/collection/scrub/secret_finder.h"

#include <algorithm>
#include <array>

#include "service/system/collection/scrub/characters.h"
#include "utils/secret_names.h"

namespace varnel::service {
namespace {

using Found = std::optional<SecretSpan>;

constexpr size_t kLongestName = 128;
constexpr size_t kLongestLook = 512;
constexpr std::string_view kMarks = "=:@?-bBJ$";

constexpr std::array<bool, 256> MarkTable() {
  std::array<bool, 256> table{};
  for (const char c : kMarks) table.at(static_cast<unsigned char>(c)) = true;
  return table;
}
constexpr std::array<bool, 256> kIsMark = MarkTable();

Found Span(std::string_view text, size_t begin, ValueEnd rest) {
  const size_t end = rest.FindIn(text, begin);
  if (end == begin) return std::nullopt;
  return SecretSpan{begin, end, rest};
}

std::string_view Piece(std::string_view text, size_t begin, size_t end) {
  return text.substr(begin, end == ValueEnd::kNotYet ? text.npos : end - begin);
}

bool SaysNothing(std::string_view value) {
  constexpr std::array<std::string_view, 9> kWords{"true", "false", "null",   "none", "None",
                                                   "True", "False", "(null)", "***"};
  return std::find(kWords.begin(), kWords.end(), value) != kWords.end();
}

bool EqualsIgnoringCase(std::string_view text, std::string_view low) {
  return std::equal(text.begin(), text.end(), low.begin(), low.end(),
                    [](char a, char b) { return (a | 0x20) == b; });
}

/// A pin of a processor, or a line of counters, and not a number that somebody knows.
bool IsHardwarePin(std::string_view name, std::string_view value) {
  return EqualsIgnoringCase(name, "pin") && !std::all_of(value.begin(), value.end(), IsDigit);
}

/// What shells call the directory that they are in.
bool IsDirectory(std::string_view name, std::string_view value) {
  return (name == "PWD" || name == "OLDPWD") && value.starts_with('/');
}

size_t LineBegin(std::string_view text, size_t at) {
  const size_t first = at - std::min(at, kLongestLook);
  while (at > first && !IsLineEnd(text[at - 1])) --at;
  return at;
}

/// Nothing before it on its line but what may stand before an assignment.
bool IsFirstOnLine(std::string_view text, size_t at) {
  std::string_view before = text.substr(LineBegin(text, at), at - LineBegin(text, at));
  if (before.size() >= kLongestLook) return false;
  const size_t export_at = before.find("export ");
  if (export_at != before.npos) before.remove_suffix(before.size() - export_at);
  return before.find_first_not_of(" \t#;-") == before.npos;
}

/// The quote that is open before this place of its line; 0 when none is. An apostrophe within a
/// word opens nothing.
char OpenQuote(std::string_view text, size_t at) {
  char open = 0;
  for (size_t i = LineBegin(text, at); i < at; ++i) {
    const char c = text[i];
    if (open != 0) {
      if (c == open) open = 0;
    } else if (c == '"' || (c == '\'' && (i == 0 || !IsLetter(text[i - 1])))) {
      open = c;
    }
  }
  return open;
}

struct Name {
  std::string_view text;
  size_t begin = 0;
  bool quoted = false;
};

Name QuotedName(std::string_view text, size_t end) {
  const char quote = text[end];
  const bool escaped = end > 0 && text[end - 1] == '\\';
  const size_t last = escaped ? end - 1 : end;  // behind the name
  const size_t first = last - std::min(last, kLongestName);
  size_t begin = last;
  while (begin > first && text[begin - 1] != quote && !IsLineEnd(text[begin - 1])) --begin;
  return {text.substr(begin, last - begin), begin, true};
}

/// What stands before an assignment's sign.
Name NameBefore(std::string_view text, size_t sign) {
  size_t end = sign;
  while (end > 0 && sign - end < 8 && IsBlank(text[end - 1])) --end;
  if (end > 0 && IsQuote(text[end - 1])) return QuotedName(text, end - 1);
  size_t begin = end;
  while (begin > 0 && end - begin < kLongestName && IsNameCharacter(text[begin - 1])) --begin;
  return {text.substr(begin, end - begin), begin, false};
}

ValueEnd EndOfValue(std::string_view text, size_t begin, const Name& name) {
  const char c = text[begin];
  if (!name.quoted && IsFirstOnLine(text, name.begin)) return ValueEnd::OfLine();
  if (name.quoted && (c == '{' || c == '[')) return ValueEnd::OfBrackets();
  if (name.quoted) return ValueEnd::OfMember();
  return ValueEnd::OfWords(OpenQuote(text, name.begin));
}

Found ValueOf(std::string_view text, size_t begin, const Name& name) {
  while (begin < text.size() && (IsBlank(text[begin]) || text[begin] == '=')) ++begin;
  if (begin >= text.size()) return std::nullopt;
  const bool escaped = text[begin] == '\\' && begin + 1 < text.size() && IsQuote(text[begin + 1]);
  const size_t quote = begin + (escaped ? 1 : 0);
  const bool whole_line = !name.quoted && IsFirstOnLine(text, name.begin);
  Found found = IsQuote(text[quote]) && !whole_line
                    ? Span(text, quote + 1, ValueEnd::OfString(text[quote], escaped))
                    : Span(text, begin, EndOfValue(text, begin, name));
  if (!found) return found;
  const std::string_view value = Piece(text, found->begin, found->end);
  const bool harmless = SaysNothing(value) || utils::IsErrorCode(name.text, value) ||
                        IsHardwarePin(name.text, value) || IsDirectory(name.text, value);
  return harmless ? std::nullopt : found;
}

Found Assignment(std::string_view text, size_t sign) {
  const Name name = NameBefore(text, sign);
  if (name.text.empty() || !utils::NamesSecret(name.text)) return std::nullopt;
  if (text[sign] == ':' && !name.quoted) {
    const char next = sign + 1 < text.size() ? text[sign + 1] : '\n';
    // "[TAG:12]" assigns nothing, nor does "scheme://".
    if (next == '/' || (!IsBlank(next) && !IsFirstOnLine(text, name.begin))) return std::nullopt;
  }
  return ValueOf(text, sign + 1, name);
}

size_t WordBegin(std::string_view text, size_t at) {
  const size_t first = at - std::min(at, kLongestLook);
  while (at > first) {
    const char c = text[at - 1];
    if (IsLineEnd(c) || IsBlank(c) || IsQuote(c) || c == '<' || c == '(' || c == ',') break;
    --at;
  }
  return at;
}

/// "user:password@".
Found UserInformation(std::string_view text, size_t at) {
  size_t begin = WordBegin(text, at);
  const size_t scheme = text.substr(begin, at - begin).rfind("://");
  if (scheme != text.npos) begin += scheme + 3;
  const size_t colon = text.substr(begin, at - begin).find(':');
  // A secret there has gone already, or the address has a name alone.
  if (colon == text.npos || begin + colon + 1 == at) return std::nullopt;
  return SecretSpan{begin, at, ValueEnd::OfWord()};
}

Found Query(std::string_view text, size_t at) {
  const size_t begin = WordBegin(text, at);
  if (text.substr(begin, at - begin).find("://") == text.npos) return std::nullopt;
  return Span(text, at + 1, ValueEnd::OfUrl());
}

Found PrivateKey(std::string_view text, size_t at) {
  constexpr std::string_view kBegin = "-----BEGIN ";
  constexpr std::string_view kKey = "PRIVATE KEY-----";
  const std::string_view head = text.substr(at, kBegin.size() + 32);
  if (!head.starts_with(kBegin)) return std::nullopt;
  const size_t key = head.find(kKey);
  if (key == head.npos) return std::nullopt;
  return Span(text, at + key + kKey.size(), ValueEnd::OfPem());
}

/// "--password secret".
Found Option(std::string_view text, size_t at) {
  if (at > 0 && !IsBlank(text[at - 1]) && !IsLineEnd(text[at - 1]) && !IsQuote(text[at - 1]))
    return std::nullopt;
  size_t end = at;
  while (end < text.size() && IsNameCharacter(text[end])) ++end;
  const std::string_view name = text.substr(at, end - at);
  if (end + 1 >= text.size() || !(IsBlank(text[end]) || text[end] == '\0')) return std::nullopt;
  if (text[end + 1] == '-' || IsBlank(text[end + 1]) || !utils::NamesSecret(name))
    return std::nullopt;
  if (IsQuote(text[end + 1])) return Span(text, end + 2, ValueEnd::OfString(text[end + 1], false));
  return Span(text, end + 1, ValueEnd::OfWords(OpenQuote(text, at)));
}

bool IsAloneBefore(std::string_view text, size_t at) {
  return at == 0 || !IsNameCharacter(text[at - 1]);
}

Found LongWord(std::string_view text, size_t begin, size_t shortest) {
  Found found = Span(text, begin, ValueEnd::OfWord());
  return found && Piece(text, begin, found->end).size() >= shortest ? found : std::nullopt;
}

Found Bearer(std::string_view text, size_t at) {
  constexpr std::string_view kBearer = "bearer ";
  constexpr size_t kShortest = 6;
  const std::string_view word = text.substr(at, kBearer.size());
  if (word.size() < kBearer.size() || !IsAloneBefore(text, at)) return std::nullopt;
  return EqualsIgnoringCase(word, kBearer) ? LongWord(text, at + kBearer.size(), kShortest)
                                           : std::nullopt;
}

/// A signed token in three parts: "eyJ...".
Found SignedToken(std::string_view text, size_t at) {
  constexpr size_t kShortest = 24;
  if (at < 2 || text[at - 1] != 'y' || text[at - 2] != 'e' || !IsAloneBefore(text, at - 2))
    return std::nullopt;
  return LongWord(text, at - 2, kShortest);
}

/// "$6$salt$hash".
Found PasswordHash(std::string_view text, size_t at) {
  constexpr size_t kShortest = 16;
  const size_t second = text.substr(at + 1, 10).find('$');
  if (second == text.npos || second == 0) return std::nullopt;
  if (!std::all_of(text.begin() + static_cast<long>(at) + 1,
                   text.begin() + static_cast<long>(at + 1 + second), IsNameCharacter))
    return std::nullopt;
  return LongWord(text, at, kShortest);
}

}  // namespace

size_t NextMark(std::string_view text, size_t at, size_t limit) {
  while (at < limit && !kIsMark[static_cast<unsigned char>(text[at])]) ++at;
  return at;
}

std::optional<SecretSpan> SecretAt(std::string_view text, size_t mark) {
  switch (text[mark]) {
    case '=':
    case ':':
      return Assignment(text, mark);
    case '@':
      return UserInformation(text, mark);
    case '?':
      return Query(text, mark);
    case '-': {
      const Found key = PrivateKey(text, mark);
      return key ? key : Option(text, mark);
    }
    case 'J':
      return SignedToken(text, mark);
    case '$':
      return PasswordHash(text, mark);
    default:
      return Bearer(text, mark);
  }
}

}  // namespace varnel::service
