#include "service/system/collection/scrub/held_values.h"

#include <algorithm>
#include <cstring>

namespace varnel::service {
namespace {

constexpr size_t kGram = 4;
constexpr size_t kShortest = 8;
constexpr char kMask = '*';

uint32_t HashOf(const char* gram) {
  uint32_t bytes = 0;
  std::memcpy(&bytes, gram, kGram);
  return (bytes * 2'654'435'761U) >> 16U;
}

}  // namespace

void HeldValues::Add(std::string_view value) {
  constexpr std::string_view kLineEnds = "\r\n";
  while (!value.empty()) {
    const size_t end = std::min(value.find_first_of(kLineEnds), value.size());
    AddLine(value.substr(0, end));
    value.remove_prefix(std::min(end + 1, value.size()));
  }
}

void HeldValues::AddLine(std::string_view line) {
  // "-----BEGIN ...", which is no secret.
  if (line.size() < kShortest || line.starts_with("-----")) return;
  for (size_t i = 0; i + kGram <= line.size(); ++i) grams_.set(HashOf(line.data() + i));
  shortest_ = values_.empty() ? line.size() : std::min(shortest_, line.size());
  values_.emplace_back(line);
}

/// Of four bytes in any value only one position in so many needs a look.
size_t HeldValues::MaskIn(std::span<char> bytes) const {
  size_t masked = 0;
  if (values_.empty()) return masked;
  const size_t stride = shortest_ - kGram + 1;
  for (size_t i = 0; i + kGram <= bytes.size(); i += stride)
    if (grams_.test(HashOf(bytes.data() + i))) masked += MaskAround(bytes, i);
  return masked;
}

size_t HeldValues::MaskAround(std::span<char> bytes, size_t position) const {
  for (const utils::SecretString& value : values_) {
    const std::string_view text = value.Text();
    for (size_t offset = 0; offset + kGram <= text.size() && offset <= position; ++offset) {
      const size_t begin = position - offset;
      if (begin + text.size() > bytes.size() ||
          std::memcmp(bytes.data() + begin, text.data(), text.size()) != 0)
        continue;
      std::fill_n(bytes.data() + begin, text.size(), kMask);
      return 1;
    }
  }
  return 0;
}

}  // namespace varnel::service
