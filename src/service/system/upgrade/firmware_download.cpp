#include "service/system/upgrade/firmware_download.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using namespace std::chrono_literals;

constexpr const char* kTag = "UPGM";
constexpr double kStallS = 15;
constexpr int kIdleAttempts = 3;
constexpr int kMostWrongRanges = 3;
constexpr int kMostBeginnings = 10;
constexpr long kPartial = 206;
constexpr long kForbidden = 403;
constexpr long kRangeNotSatisfiable = 416;

}  // namespace

const char* ReasonOf(DownloadOutcome outcome) {
  switch (outcome) {
    case DownloadOutcome::kSuccess:
      return "success";
    case DownloadOutcome::kNetworkAbort:
      return "network abort";
    case DownloadOutcome::kFailed:
      return "download firmware failed";
    case DownloadOutcome::kCheckFailed:
      return "firmware check failed";
    case DownloadOutcome::kOtherVersion:
      return "check remote version number failed";
  }
  return "";
}

FirmwareDownload::FirmwareDownload(DownloadSetup setup, const FirmwareDescription& description)
    : setup_(std::move(setup)),
      description_(description),
      part_(*setup_.store, description, {setup_.min_free_bytes, setup_.sync_bytes},
            {setup_.check->WantsSha256(), setup_.stop},
            [this](int64_t position) { return Tell(position); }),
      furthest_(part_.Position()) {}

bool FirmwareDownload::Tell(int64_t position) {
  const auto size = static_cast<int64_t>(description_.size);
  percent_ = std::max(percent_, static_cast<int>(position * 100 / size));
  setup_.progress(percent_, position, size);
  return true;
}

DownloadOutcome FirmwareDownload::Run(std::string url) {
  if (!setup_.check->MayPass(description_)) return Refuse();
  const auto size = static_cast<int64_t>(description_.size);
  while (part_.Why() == FirmwarePart::Problem::kNone && part_.Position() < size) {
    if (!part_.HasRoom()) {
      VLOG_ERROR(kTag, "There is no room for {} bytes of firmware", size - part_.Position());
      return Failed(CURLE_WRITE_ERROR);
    }
    const bool resumes =
        part_.Position() > 0 && !part_.Validator().empty() && !std::exchange(whole_, false);
    const RangeResult result = setup_.http->Download(
        {url, resumes ? part_.Position() : 0, part_.Validator(), size, kStallS}, part_);
    if (const auto outcome = Judge(result, url)) return *outcome;
  }
  return part_.Why() == FirmwarePart::Problem::kNone ? Finish() : Failed(CURLE_WRITE_ERROR);
}

std::optional<DownloadOutcome> FirmwareDownload::Judge(const RangeResult& result,
                                                       std::string& url) {
  using Problem = FirmwarePart::Problem;
  if (part_.Beginnings() != std::exchange(beginnings_, part_.Beginnings())) {
    furthest_ = 0;
    fresh_at_ = -1;
  }
  if (part_.Why() == Problem::kWrongSize || result.too_long) return Refuse();
  if (part_.Why() != Problem::kNone) return Failed(result.code);
  if (result.code == CURLE_OK) return AfterAll(result);
  if (result.status == kForbidden &&
      part_.Position() > std::exchange(fresh_at_, part_.Position())) {
    auto other = setup_.fresh_url();
    if (!other) return Failed(result.code);
    url = *std::move(other);
    return std::nullopt;
  }
  if (result.wrong_range || result.status == kRangeNotSatisfiable) {
    if (++wrong_ranges_ > kMostWrongRanges) return Failed(result.code);
    whole_ = true;
    return std::nullopt;
  }
  return result.IsNetwork() ? AfterNetwork(result.code) : Failed(result.code);
}

/// A range may be shorter than what was asked for.
std::optional<DownloadOutcome> FirmwareDownload::AfterAll(const RangeResult& result) {
  const bool is_part =
      result.status == kPartial && part_.Position() < static_cast<int64_t>(description_.size);
  return is_part ? AfterNetwork(CURLE_PARTIAL_FILE) : Finish();
}

std::optional<DownloadOutcome> FirmwareDownload::AfterNetwork(int code) {
  idle_ = part_.Position() > furthest_ && beginnings_ <= kMostBeginnings ? 0 : idle_ + 1;
  furthest_ = std::max(furthest_, part_.Position());
  if (!part_.Sync()) return Failed(CURLE_WRITE_ERROR);
  if (idle_ < kIdleAttempts && setup_.pause(idle_ < 2 ? 1s : 2s)) return std::nullopt;
  VLOG_ERROR(kTag, "Download failed! ret= {}", code);
  return DownloadOutcome::kNetworkAbort;
}

DownloadOutcome FirmwareDownload::Failed(int code) const {
  VLOG_ERROR(kTag, "Download failed! ret= {}", code);
  return DownloadOutcome::kFailed;
}

DownloadOutcome FirmwareDownload::Refuse() const {
  VLOG_ERROR(kTag, "Downloaded firmware check failed.");
  setup_.store->RemovePart(description_.fullversion);
  return DownloadOutcome::kCheckFailed;
}

DownloadOutcome FirmwareDownload::Finish() {
  if (!part_.Sync()) return Failed(CURLE_WRITE_ERROR);
  const FirmwareStore& store = *setup_.store;
  const auto part = store.Part(description_.fullversion);
  const auto digests = part_.Digests();
  if (!digests && setup_.stop && setup_.stop()) return Failed(CURLE_ABORTED_BY_CALLBACK);
  if (!digests || !setup_.check->CheckWrittenFile(part, description_, *digests)) return Refuse();
  std::error_code error;
  std::filesystem::rename(part, store.Firmware(description_.fullversion), error);
  if (!error) error = utils::SyncDirectory(store.Directory());
  if (error) return Failed(CURLE_WRITE_ERROR);
  setup_.check->Follow(store.Firmware(description_.fullversion));
  store.RemovePart(description_.fullversion);  // its record
  (void)Tell(static_cast<int64_t>(description_.size));
  VLOG_INFO(kTag, "Download completed successfully!");
  return DownloadOutcome::kSuccess;
}

}  // namespace varnel::service
