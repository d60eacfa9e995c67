#include "service/system/upgrade/upgrade_notifier.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"

namespace varnel::service {
namespace {

using comms::CommsStatus;
using nlohmann::json;

constexpr const char* kTag = "UPGM";
constexpr const char* kUpgrade = "notify_system_upgrade";

}  // namespace

void UpgradeNotifier::Progress(const char* state, int percent) const {
  const CommsStatus status = send_(kUpgrade, {{"state", state}, {"percent", percent}});
  if (status != CommsStatus::kOk) {
    VLOG_ERROR(kTag, "Send notify_system_upgrade error, percent = {}, ret = {}", percent,
               comms::Code(status));
  }
}

bool UpgradeNotifier::Outcome(const char* state, const std::string& reason,
                              const std::string& message) const {
  json params = {{"state", state}, {"reason", reason}};
  if (!message.empty()) params["message"] = message;
  const CommsStatus status = send_(kUpgrade, std::move(params));
  if (status != CommsStatus::kOk)
    VLOG_ERROR(kTag, "Send notify_system_upgrade error, ret = {}", comms::Code(status));
  return status == CommsStatus::kOk;
}

bool UpgradeNotifier::Ended(const std::string& outcome) const {
  if (outcome.empty()) return Outcome("warning", "upgrade", "upgrade result is unknown");
  if (outcome == "success") return Outcome("success", "upgrade");
  if (outcome == ReasonOf(DownloadOutcome::kCheckFailed)) return Outcome("failed", outcome);
  return Outcome("failed", "upgrade", outcome);
}

void UpgradeNotifier::Offer(const FirmwareOffer& offer, bool is_downloading) const {
  const CommsStatus status =
      send_("notify_system_check_remote", {{"status", offer.good ? "success" : "failed"},
                                           {"has_new", offer.has_new},
                                           {"has_downloaded", offer.has_downloaded},
                                           {"is_downloading", is_downloading},
                                           {"version", offer.description.version},
                                           {"fullversion", offer.description.fullversion}});
  if (status != CommsStatus::kOk)
    VLOG_ERROR(kTag, "Send notify_system_check_remote error, ret = {}", comms::Code(status));
}

}  // namespace varnel::service
