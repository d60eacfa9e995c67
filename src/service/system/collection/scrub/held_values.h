#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "utils/secret.h"

namespace varnel::service {

/// Secrets that the daemon itself holds: wherever they stand, in text or in a core dump, they are
/// known by their bytes. Filled by one thread, then read by any.
class HeldValues {
 public:
  /// Lines of a longer text, a key file for example, stand for themselves, so that it is found
  /// whatever joins them. What is shorter than 8 bytes would be found everywhere, and is left out.
  void Add(std::string_view value);

  /// Overwrites each whole value in the bytes, without a change of their number; how many.
  size_t MaskIn(std::span<char> bytes) const;

 private:
  static constexpr unsigned kHashBits = 16;

  void AddLine(std::string_view line);
  [[nodiscard]] size_t MaskAround(std::span<char> bytes, size_t position) const;

  std::vector<utils::SecretString> values_;
  size_t shortest_ = 0;
  std::bitset<size_t{1} << kHashBits> grams_;  ///< of every four bytes of every value
};

}  // namespace varnel::service
