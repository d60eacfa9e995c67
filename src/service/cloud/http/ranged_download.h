#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "service/cloud/http/curl_transfer.h"
#include "utils/clock.h"

namespace varnel::service {

/// The rest of a file, from an offset on.
struct RangeRequest {
  std::string url{};  ///< http or https
  int64_t offset = 0;
  /// What the server said of the file of which the first bytes are; with an offset only. Of
  /// another file all comes instead.
  std::string validator{};
  int64_t max_bytes = 0;  ///< of the whole file; more is not taken
  double stall_limit_s = 0;
};

/// What comes, as the server says before its first byte.
struct RangeStart {
  int64_t offset = 0;
  std::optional<int64_t> size{};  ///< of the whole file; nothing when it is not known
  std::string validator{};        ///< for going on later: ETag, else Last-Modified; may be empty
};

/// Takes a file. Called by the thread that downloads.
class RangeSink {
 public:
  virtual ~RangeSink() = default;
  /// False ends the download. Called for a status of 200 or 206 only.
  [[nodiscard]] virtual bool Begin(const RangeStart& start) = 0;
  /// False ends the download.
  [[nodiscard]] virtual bool Take(const char* data, size_t size) = 0;
  /// About once a second, with the position in the file. False ends the download.
  [[nodiscard]] virtual bool GoOn(int64_t position) = 0;
};

/// How it ended.
struct RangeResult {
  int code = CURLE_FAILED_INIT;  ///< of the library; 0: the server has sent all that it wanted to
  long status = 0;               ///< HTTP; 0 without one
  std::string problem{};         ///< the library's words
  bool wrong_range = false;      ///< what came was not what was asked for
  bool too_long = false;

  /// Not the fault of what was asked for: it may be different next time.
  [[nodiscard]] bool IsNetwork() const;
};

/// Fetches files by range requests (RFC 9110, section 14). One at a time; thread-safe.
class RangedDownloader {
 public:
  /// @param stop ends the download that runs, within two seconds
  explicit RangedDownloader(TransferStop stop,
                            utils::Clock& clock = utils::SystemClock::Instance());

  /// Bodies with a status of 400 and above are kept out; redirects are followed, to http and https
  /// only.
  [[nodiscard]] RangeResult Download(const RangeRequest& request, RangeSink& sink);

 private:
  class Hooks;

  const TransferStop stop_;
  utils::Clock& clock_;
  ConnectionShare connections_;
};

}  // namespace varnel::service
