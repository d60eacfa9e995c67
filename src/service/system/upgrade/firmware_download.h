#pragma once

#include <functional>
#include <optional>
#include <string>

#include "service/cloud/http/ranged_download.h"
#include "service/system/upgrade/firmware_check.h"
#include "service/system/upgrade/firmware_part.h"
#include "service/system/upgrade/firmware_store.h"
#include "utils/clock.h"

namespace varnel::service {

enum class DownloadOutcome { kSuccess, kNetworkAbort, kFailed, kCheckFailed, kOtherVersion };

/// "success", "network abort", ...: the reason that clients are told.
[[nodiscard]] const char* ReasonOf(DownloadOutcome outcome);

/// What a download works with; what it refers to outlives it.
struct DownloadSetup {
  RangedDownloader* http = nullptr;
  const FirmwareStore* store = nullptr;
  FirmwareCheck* check = nullptr;
  uint64_t min_free_bytes = 0;
  int64_t sync_bytes = FirmwarePart::kSyncBytes;
  /// From 0 to 100; never falls.
  std::function<void(int percent, int64_t received, int64_t size)> progress{};
  /// Another address, when the one that there is is refused; nothing: there is none.
  std::function<std::optional<std::string>()> fresh_url{};
  /// Whether it is to end; may be empty.
  std::function<bool()> stop{};
  /// Waits; false: it is to end.
  std::function<bool(std::chrono::milliseconds time)> pause{};
};

/// Brings one firmware into the store, over whatever goes wrong on the way. One thread.
class FirmwareDownload {
 public:
  FirmwareDownload(DownloadSetup setup, const FirmwareDescription& description);

  /// An interrupted one goes on where it was.
  [[nodiscard]] DownloadOutcome Run(std::string url);

 private:
  /// Nothing: once more.
  [[nodiscard]] std::optional<DownloadOutcome> Judge(const RangeResult& result, std::string& url);
  [[nodiscard]] std::optional<DownloadOutcome> AfterAll(const RangeResult& result);
  [[nodiscard]] std::optional<DownloadOutcome> AfterNetwork(int code);
  [[nodiscard]] DownloadOutcome Failed(int code) const;
  [[nodiscard]] DownloadOutcome Finish();
  [[nodiscard]] DownloadOutcome Refuse() const;
  bool Tell(int64_t position);

  const DownloadSetup setup_;
  const FirmwareDescription& description_;
  FirmwarePart part_;
  int percent_ = 0;
  int64_t furthest_ = 0;
  int idle_ = 0;           ///< attempts one after another without a new byte
  int beginnings_ = 0;     ///< of the part, when an attempt ended
  int wrong_ranges_ = 0;   ///< answers that were not what was asked for
  bool whole_ = false;     ///< the next attempt asks for all of it
  int64_t fresh_at_ = -1;  ///< where an address was refused last
};

}  // namespace varnel::service
