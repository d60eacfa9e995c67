#include "service/camera/monitor/monitor_upload.h"

#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr const char* kTag = "MON";
constexpr milliseconds kTurnLimit{60'000};

}  // namespace

std::optional<std::string> MonitorUpload::SendFirst(const std::filesystem::path& file,
                                                    const UploadStop& stop) {
  const utils::Turn::Holder turn(turn_, kTurnLimit);
  const auto begin = clock_.Now();
  std::optional<std::string> url;
  if (turn && !stop())
    url = uploader_.Upload({.file = file, .name = stored_name_(), .log = true, .stop = stop});
  if (!url) {
    VLOG_ERROR(kTag, "Push file failed.");
    return std::nullopt;
  }
  VLOG_INFO(kTag, "The time consumption for upload the test file is {} ms.",
            duration_cast<milliseconds>(clock_.Now() - begin).count());
  VLOG_INFO(kTag, "URL is {}", utils::LogText(utils::MaskUrl(*url)));
  return url;
}

bool MonitorUpload::SendNext(const std::filesystem::path& file, const UploadStop& stop,
                             milliseconds patience) {
  const utils::Turn::Holder turn(turn_, milliseconds(0));
  if (!turn) return true;
  auto moved = clock_.Now();
  uint64_t last = 0;
  const auto note = [&](uint64_t sent, uint64_t) {
    if (std::exchange(last, sent) != sent) moved = clock_.Now();
    return true;
  };
  const auto ended = [&] {
    return stop() || (patience.count() > 0 && clock_.Now() - moved > patience);
  };
  const auto url =
      uploader_.Upload({.file = file, .name = stored_name_(), .progress = note, .stop = ended});
  if (url) VLOG_DEBUG(kTag, "URL is {}", utils::LogText(utils::MaskUrl(*url)));
  return url.has_value();
}

}  // namespace varnel::service
