#pragma once

#include <cstddef>
#include <string_view>

namespace varnel::service {

/// Where the value of a secret ends, which may be in a later piece of the text than it began.
class ValueEnd {
 public:
  static constexpr size_t kNotYet = std::string_view::npos;

  /// The end of the line.
  static ValueEnd OfLine() { return ValueEnd(Kind::kLine); }
  /// The end of the line, or where something else seems to begin: an option, another assignment,
  /// the end of the quotes around it all.
  /// @param around the quote that was open before the value; 0: none
  static ValueEnd OfWords(char around) { return ValueEnd(Kind::kWords, around); }
  /// The next space, quote or bracket.
  static ValueEnd OfWord() { return ValueEnd(Kind::kWord); }
  /// The next space, quote or "<".
  static ValueEnd OfUrl() { return ValueEnd(Kind::kUrl); }
  /// The quote that closes it, at the end of the line at the latest.
  /// @param escaped the quotes stand in a string themselves, each behind a backslash
  static ValueEnd OfString(char quote, bool escaped) {
    return ValueEnd(Kind::kString, quote, escaped);
  }
  /// A number or a word of JSON.
  static ValueEnd OfMember() { return ValueEnd(Kind::kMember); }
  /// The bracket that closes the one it begins with.
  static ValueEnd OfBrackets() { return ValueEnd(Kind::kBrackets); }
  /// The line "-----END".
  static ValueEnd OfPem() { return ValueEnd(Kind::kPem); }

  /// The position behind the value, when it goes on at `from`; kNotYet when the text ends before.
  [[nodiscard]] size_t FindIn(std::string_view text, size_t from);

 private:
  enum class Kind { kLine, kWords, kWord, kUrl, kString, kMember, kBrackets, kPem };

  explicit ValueEnd(Kind kind, char quote = 0, bool escaped = false)
      : kind_(kind), quote_(quote), escaped_(escaped) {}
  [[nodiscard]] bool EndsAt(std::string_view text, size_t at);
  [[nodiscard]] bool StringEndsAt(std::string_view text, size_t at);
  [[nodiscard]] bool BracketsEndAt(char c);
  [[nodiscard]] bool PemEndsAt(char c);
  [[nodiscard]] bool WordsEndAt(std::string_view text, size_t at) const;

  Kind kind_;
  char quote_;
  bool escaped_;
  bool skip_ = false;  ///< the character behind a backslash
  bool in_string_ = false;
  bool closed_ = false;
  size_t depth_ = 0;  ///< of brackets, or how much of the last line has come
  size_t bytes_ = 0;  ///< so far
};

}  // namespace varnel::service
