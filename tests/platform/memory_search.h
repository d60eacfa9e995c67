#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace varnel::test {

/// A text that stands nowhere in this process's memory as long as nobody calls Reveal().
class HiddenText {
 public:
  explicit HiddenText(size_t size);
  /// The text itself, for another process.
  std::string Reveal() const;
  /// Whether it stands in memory that this process may write, freed memory included.
  bool IsInMemory() const;

 private:
  bool IsIn(std::string_view bytes) const;
  bool IsInRegion(int memory, uint64_t start, uint64_t end) const;

  std::string masked_;
};

}  // namespace varnel::test
