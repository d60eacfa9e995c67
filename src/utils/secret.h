#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

namespace varnel::utils {

/// Overwrites the bytes even if nobody reads them afterwards.
void Wipe(void* bytes, size_t size) noexcept;
inline void Wipe(std::string& text) noexcept {
  Wipe(text.data(), text.size());
}

/// Text that must not stay behind in memory: its bytes are wiped at the end, moving leaves no
/// second copy, and a core dump does not contain them. Never copied. Costs at least a page.
class SecretString {
 public:
  SecretString() = default;
  /// That many zero bytes, to be filled through Data().
  explicit SecretString(size_t size);
  explicit SecretString(std::string_view text);
  SecretString(SecretString&& other) noexcept { Swap(other); }
  SecretString& operator=(SecretString&& other) noexcept {
    Swap(other);
    return *this;
  }
  SecretString(const SecretString&) = delete;
  SecretString& operator=(const SecretString&) = delete;
  ~SecretString();

  char* Data() { return bytes_; }
  std::string_view Text() const { return {bytes_, size_}; }
  /// Gives up what is behind the first `size` bytes.
  void Shrink(size_t size);

 private:
  void Swap(SecretString& other) noexcept;

  char* bytes_ = nullptr;  ///< pages of its own
  size_t capacity_ = 0;
  size_t size_ = 0;
};

/// A secret that several hold; null: there is none.
using SharedSecret = std::shared_ptr<const SecretString>;

/// Wipes an object of plain bytes at the end of the scope.
template <class Record>
class WipeAtEnd {
  static_assert(std::is_trivially_copyable_v<Record>);

 public:
  explicit WipeAtEnd(Record& record) : record_(record) {}
  WipeAtEnd(const WipeAtEnd&) = delete;
  WipeAtEnd& operator=(const WipeAtEnd&) = delete;
  ~WipeAtEnd() { Wipe(&record_, sizeof(Record)); }

 private:
  Record& record_;
};

}  // namespace varnel::utils
