#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace varnel::board {

// clang-format off
/// Faults of a virtual camera as the text of its fault file asks for them. One per line; "#" starts
/// a comment.
///
///     unplug                              every call fails with ENODEV, opening too, until the line is removed
///     stall                               streaming starts but no frame ever comes
///     fail REQUEST ERRNO [COUNT [SKIP]]   REQUEST is "VIDIOC_...", "mmap" or "frame" (carries the error flag), ERRNO a
///                                         number or a name; the first SKIP calls pass, the next COUNT fail, then the
///                                         line goes; COUNT 0: for ever
///     error-buffer [BYTES]                frames carry the error flag and only BYTES (0) bytes
///     index N                             dequeued buffers carry the index N
///     formats N                           only the first N formats are listed and given
///     size WIDTH HEIGHT                   frames are said to have this size
///     buffers N                           at most N buffers are granted
///     rate N                              N frames per second
///     no-capture, no-streaming            the capability is missing
// clang-format on
struct Faults {
  struct Failure {
    std::string request;
    int error = 0;
    uint32_t count = 0;
    uint32_t skip = 0;
  };

  bool unplug = false;
  bool stall = false;
  bool no_capture = false;
  bool no_streaming = false;
  std::optional<uint32_t> error_bytes;
  std::optional<uint32_t> index;
  std::optional<uint32_t> buffers;
  std::optional<uint32_t> formats;
  std::optional<std::pair<uint32_t, uint32_t>> size;  ///< width, height
  std::optional<uint32_t> rate;
  std::vector<Failure> failures;

  /// The first failure asked for `request`, or null.
  [[nodiscard]] const Failure* Find(const std::string& request) const;

  /// Lines that make no sense are skipped.
  static Faults Parse(const std::string& text);
  /// The text after one more call of `request`: its first counted line counted down, or removed
  /// when used up.
  static std::string CountDown(const std::string& text, const std::string& request);
};

}  // namespace varnel::board
