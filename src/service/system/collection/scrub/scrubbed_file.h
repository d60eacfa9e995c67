#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "service/system/collection/scrub/file_kind.h"
#include "service/system/collection/scrub/held_values.h"
#include "service/system/collection/scrub/secret_scrubber.h"

namespace varnel::service {

/// A file that is written without its secrets: told by its beginning what it is, scrubbed
/// accordingly. Runs of zeros become holes. The descriptor stays the caller's.
class ScrubbedFile {
 public:
  /// @param held outlives it
  ScrubbedFile(int fd, const HeldValues& held) : fd_(fd), held_(held) {}
  ScrubbedFile(const ScrubbedFile&) = delete;
  ScrubbedFile& operator=(const ScrubbedFile&) = delete;

  /// False when there is no use in more: it failed, or its kind is not for others.
  bool Feed(std::string_view bytes);
  [[nodiscard]] std::error_code Finish();

  /// Known with its beginning, or at the end.
  [[nodiscard]] std::optional<FileKind> Kind() const { return kind_; }
  [[nodiscard]] bool IsRefused() const;
  [[nodiscard]] uint64_t Masked() const { return scrubber_ ? scrubber_->Masked() : 0; }
  [[nodiscard]] uint64_t Bytes() const { return bytes_; }

 private:
  bool Begin();
  void Write(std::string_view bytes);

  const int fd_;
  const HeldValues& held_;
  std::string head_;
  std::optional<FileKind> kind_;
  std::optional<SecretScrubber> scrubber_;
  uint64_t bytes_ = 0;
  std::error_code error_;
};

}  // namespace varnel::service
