#pragma once

#include <linux/videodev2.h>

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/v4l2_calls.h"

namespace varnel::test {

/// A camera driver in memory whose calls fail on demand. One at a time: the calls of kFakeV4l2 go
/// to the newest.
struct FakeV4l2 {
  static constexpr uint32_t kFrameSize = 64;

  FakeV4l2();
  ~FakeV4l2();
  FakeV4l2(const FakeV4l2&) = delete;
  FakeV4l2& operator=(const FakeV4l2&) = delete;

  /// The errnos with which the next calls of a request fail, 0 for one that succeeds; what comes
  /// after succeeds.
  std::map<unsigned long, std::deque<int>> ioctl_errnos;
  std::deque<int> wait_errnos;  ///< the same for the wait; -1: nothing came in time
  int open_errno = 0;
  int close_errno = 0;
  bool always_again = false;  ///< every DQBUF says EAGAIN

  std::optional<v4l2_pix_format> granted;  ///< given whatever is asked for
  std::deque<v4l2_buffer> frames;          ///< what DQBUF hands out; none left: buffer 1, full

  // What happened.
  std::string opened_path;
  int open_descriptors = 0;
  int opens = 0;
  int mappings = 0;
  bool streaming = false;
  std::vector<uint32_t> queued;
  std::map<unsigned long, int> calls;  ///< how often each request came
  int64_t now_ms = 0;
  std::array<std::array<uint8_t, kFrameSize>, 3> memory{};

  int Ioctl(unsigned long request, void* argument);
  int Wait(int timeout_ms);

 private:
  void Serve(unsigned long request, void* argument);
};

/// A frame as DQBUF hands it out.
v4l2_buffer Frame(uint32_t index, uint32_t bytes_used, uint32_t flags = 0);

extern const platform::V4l2Calls kFakeV4l2;

}  // namespace varnel::test
