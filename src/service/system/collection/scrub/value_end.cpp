#include "service/system/collection/scrub/value_end.h"

#include "service/system/collection/scrub/characters.h"

namespace varnel::service {
namespace {

/// Of brackets and keys that never end.
constexpr size_t kMostBytes = size_t{64} << 10U;
constexpr std::string_view kPemEnd = "-----END";
constexpr std::string_view kBehindString = " \t,;:)]}>&|\\";

/// "name=" or "name: ", as an assignment begins.
bool IsAssignment(std::string_view text) {
  if (text.empty() || !(IsLetter(text.front()) || text.front() == '_')) return false;
  size_t end = 1;
  while (end < text.size() && IsNameCharacter(text[end])) ++end;
  if (end == text.size()) return false;
  return text[end] == '=' || (text[end] == ':' && end + 1 < text.size() && IsBlank(text[end + 1]));
}

bool IsOption(std::string_view text) {
  if (!text.starts_with('-')) return false;
  text.remove_prefix(text.starts_with("--") ? 2 : 1);
  return !text.empty() && IsLetter(text.front());
}

bool IsOneOf(char c, std::string_view characters) {
  return characters.find(c) != characters.npos;
}

}  // namespace

size_t ValueEnd::FindIn(std::string_view text, size_t from) {
  for (size_t at = from; at < text.size(); ++at) {
    if (EndsAt(text, at)) return at;
    ++bytes_;
  }
  return kNotYet;
}

bool ValueEnd::EndsAt(std::string_view text, size_t at) {
  const char c = text[at];
  switch (kind_) {
    case Kind::kLine:
      return IsLineEnd(c);
    case Kind::kWords:
      return IsLineEnd(c) || (quote_ != 0 && c == quote_) || WordsEndAt(text, at);
    case Kind::kWord:
      return IsLineEnd(c) || IsQuote(c) || IsOneOf(c, " \t,;<>(){}[]\\");
    case Kind::kUrl:
      return IsLineEnd(c) || IsQuote(c) || IsOneOf(c, " \t<>\\");
    case Kind::kString:
      return IsLineEnd(c) || StringEndsAt(text, at);
    case Kind::kMember:
      return IsLineEnd(c) || IsOneOf(c, ",}]");
    case Kind::kBrackets:
      return bytes_ >= kMostBytes || BracketsEndAt(c);
    case Kind::kPem:
      return bytes_ >= kMostBytes || PemEndsAt(c);
  }
  return true;
}

/// Also what follows the closing quote without a gap, as when a shell's words are joined, is the
/// value: it goes on as a word.
bool ValueEnd::StringEndsAt(std::string_view text, size_t at) {
  const char c = text[at];
  if (escaped_) return c == '\\' && at + 1 < text.size() && text[at + 1] == quote_;
  if (skip_) {
    skip_ = false;
    return false;
  }
  skip_ = c == '\\';
  if (c != quote_) return false;
  const char next = at + 1 < text.size() ? text[at + 1] : '\n';
  if (IsLineEnd(next) || IsQuote(next) || IsOneOf(next, kBehindString)) return true;
  kind_ = Kind::kUrl;
  return false;
}

/// Letter by letter: the text may end between any two.
bool ValueEnd::PemEndsAt(char c) {
  constexpr size_t kDashes = 5;
  if (depth_ == kPemEnd.size()) return true;
  const bool more_dashes = depth_ == kDashes && c == '-';
  if (!more_dashes) depth_ = kPemEnd[depth_] == c ? depth_ + 1 : (c == '-' ? 1 : 0);
  return false;
}

bool ValueEnd::BracketsEndAt(char c) {
  if (closed_) return true;
  if (in_string_) {
    if (skip_) {
      skip_ = false;
    } else {
      skip_ = c == '\\';
      in_string_ = c != quote_;
    }
    return false;
  }
  if (IsQuote(c)) {
    in_string_ = true;
    quote_ = c;
  } else if (c == '{' || c == '[') {
    ++depth_;
  } else if ((c == '}' || c == ']') && depth_ > 0) {
    closed_ = --depth_ == 0;  // ends behind it
  }
  return false;
}

bool ValueEnd::WordsEndAt(std::string_view text, size_t at) const {
  const char c = text[at];
  if (IsBlank(c)) {
    const std::string_view next = text.substr(at + 1, 64);
    return IsOption(next) || IsAssignment(next);
  }
  if (c == '&') return IsAssignment(text.substr(at + 1, 64));
  if (c == ',' || c == ';') {
    std::string_view next = text.substr(at + 1, 64);
    if (next.starts_with(' ')) next.remove_prefix(1);
    if (!next.empty() && IsQuote(next.front())) next.remove_prefix(1);
    return IsAssignment(next);
  }
  return false;
}

}  // namespace varnel::service
