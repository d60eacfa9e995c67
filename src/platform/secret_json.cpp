#include "platform/secret_json.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "utils/utf8.h"

namespace varnel::platform {
namespace {

using nlohmann::ordered_json;
using utils::SecretString;

/// Turns what stands between the quotes of a JSON string into its text.
class Decoder {
 public:
  explicit Decoder(std::string_view literal) : rest_(literal), text_(literal.size()) {}

  /// Nothing when it is no valid JSON string.
  std::optional<SecretString> Run() {
    while (!rest_.empty()) {
      if (!(rest_.front() == '\\' ? TakeEscape() : TakeCharacter())) return std::nullopt;
    }
    text_.Shrink(size_);
    return std::move(text_);
  }

 private:
  /// No text is longer than its literal, so there is room.
  void Put(uint32_t code) { size_ += utils::PutUtf8(code, text_.Data() + size_); }

  bool TakeCharacter() {
    const auto character = utils::FirstCharacter(rest_);
    if (!character || character->code < 0x20) return false;
    Put(character->code);
    rest_.remove_prefix(character->bytes);
    return true;
  }

  bool TakeEscape() {
    constexpr std::string_view kNames = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (rest_.starts_with("\\u")) return TakeCode();
    const size_t which = rest_.size() < 2 ? rest_.npos : kNames.find(rest_[1]);
    if (which == kNames.npos) return false;
    Put(static_cast<uint8_t>(kMeanings[which]));
    rest_.remove_prefix(2);
    return true;
  }

  bool TakeCode() {
    std::optional<uint32_t> code = TakeUnit();
    if (code && *code >= 0xD800 && *code < 0xDC00) {
      const std::optional<uint32_t> low = TakeUnit();
      if (!low || *low < 0xDC00 || *low > 0xDFFF) return false;
      code = 0x10000 + ((*code - 0xD800) << 10U) + (*low - 0xDC00);
    } else if (code && *code >= 0xDC00 && *code <= 0xDFFF) {
      return false;
    }
    if (code) Put(*code);
    return code.has_value();
  }

  /// One "\uXXXX".
  std::optional<uint32_t> TakeUnit() {
    constexpr size_t kSize = 6;
    if (!rest_.starts_with("\\u") || rest_.size() < kSize) return std::nullopt;
    uint32_t unit = 0;
    const char* end = rest_.data() + kSize;
    if (std::from_chars(rest_.data() + 2, end, unit, 16).ptr != end) return std::nullopt;
    rest_.remove_prefix(kSize);
    return unit;
  }

  std::string_view rest_;
  SecretString text_;
  size_t size_ = 0;
};

/// A JSON text with each string replaced by its number, and the texts of the strings.
struct Outline {
  std::string structure;
  std::vector<SecretString> texts;

  bool Add(std::string_view literal) {
    std::optional<SecretString> text = Decoder(literal).Run();
    if (!text) return false;
    structure += '"' + std::to_string(texts.size()) + '"';
    texts.push_back(std::move(*text));
    return true;
  }
  const SecretString& TextOf(const std::string& number) const { return texts[std::stoul(number)]; }
};

/// The length of a literal up to its closing quote, which may be missing.
size_t LiteralSize(std::string_view text) {
  size_t size = 0;
  while (size < text.size() && text[size] != '"') size += text[size] == '\\' ? 2 : 1;
  return size;
}

/// Nothing when a string is broken.
std::optional<Outline> OutlineOf(std::string_view text) {
  Outline outline;
  while (!text.empty()) {
    const size_t quote = std::min(text.find('"'), text.size());
    outline.structure += text.substr(0, quote);
    text.remove_prefix(quote);
    if (text.empty()) break;
    text.remove_prefix(1);
    const size_t size = LiteralSize(text);
    if (size >= text.size() || !outline.Add(text.substr(0, size))) return std::nullopt;
    text.remove_prefix(size + 1);
  }
  return outline;
}

}  // namespace

SecretJsonStatus read_string_member(std::string_view text, std::string_view name,
                                    SecretString& value) {
  std::optional<Outline> outline = OutlineOf(text);
  if (!outline) return SecretJsonStatus::kInvalid;
  const auto object = ordered_json::parse(outline->structure, nullptr, false);
  if (!object.is_object()) return SecretJsonStatus::kInvalid;
  const ordered_json* found = nullptr;
  for (const auto& [number, member] : object.items()) {
    if (outline->TextOf(number).Text() == name) found = &member;
  }
  if (found == nullptr || !found->is_string()) return SecretJsonStatus::kNoString;
  value = SecretString(outline->TextOf(found->get_ref<const std::string&>()).Text());
  return SecretJsonStatus::kFound;
}

}  // namespace varnel::platform
