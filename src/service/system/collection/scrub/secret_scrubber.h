#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "service/system/collection/scrub/held_values.h"
#include "service/system/collection/scrub/value_end.h"

namespace varnel::service {

enum class Masking {
  kShort,       ///< "***" in the place of each value
  kSameLength,  ///< one "*" for each byte, so that what counts bytes stays whole: core dumps
  kHeldOnly,    ///< the same, but nothing is looked for except the values that are held: pictures
};

/// Takes secrets out of bytes that pass through it, in pieces of any size. Its memory does not grow
/// with what passes.
class SecretScrubber {
 public:
  /// Gets all bytes in their order, in pieces.
  using Output = std::function<void(std::string_view bytes)>;

  /// @param held outlives it
  SecretScrubber(const HeldValues& held, Masking masking, Output output);
  SecretScrubber(const SecretScrubber&) = delete;
  SecretScrubber& operator=(const SecretScrubber&) = delete;

  void Feed(std::string_view bytes);
  /// What is left comes out.
  void Finish();
  /// How many values were taken out so far.
  [[nodiscard]] uint64_t Masked() const { return masked_; }

 private:
  void Work(bool last);
  [[nodiscard]] size_t Limit(bool last) const;
  [[nodiscard]] size_t EndOpenValue(size_t at);
  void Mask(size_t begin, size_t end);
  void Give(size_t end);
  void Forget(size_t end);

  const HeldValues& held_;
  const Masking masking_;
  const Output output_;
  std::string buffer_;            ///< what came out last, then what has to be looked at
  size_t given_ = 0;              ///< so much of it is out
  std::optional<ValueEnd> open_;  ///< of a value that goes on in the next bytes
  uint64_t masked_ = 0;
};

}  // namespace varnel::service
