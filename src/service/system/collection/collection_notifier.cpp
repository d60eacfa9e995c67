#include "service/system/collection/collection_notifier.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "utils/log.h"

namespace varnel::service {
namespace {

using comms::CommsStatus;
using nlohmann::json;

constexpr const char* kTag = "COLLM";

const char* NameOf(CollectionStep step) {
  switch (step) {
    case CollectionStep::kInner:
      return "inner";
    case CollectionStep::kUpload:
      return "upload";
    case CollectionStep::kCopy:
      return "copy";
  }
  return "";
}

}  // namespace

void CollectionNotifier::Completed(CollectionStep step, const std::string& filepath,
                                   uint64_t filesize) const {
  Tell(step, {{"state", "completed"}, {"filepath", filepath}, {"filesize", filesize}});
}

void CollectionNotifier::Failed(CollectionStep step, const std::string& reason) const {
  Tell(step, {{"state", "failed"}, {"reason", reason}});
}

void CollectionNotifier::Disconnected(CollectionStep step, const std::string& reason) const {
  Tell(step, {{"state", "disconnected"}, {"reason", reason}});
}

void CollectionNotifier::Tell(CollectionStep step, json params) const {
  params["type"] = NameOf(step);
  const CommsStatus status = send_("notify_collect_sysinfo", std::move(params));
  if (status != CommsStatus::kOk) {
    VLOG_ERROR(kTag, "Send notify_collect_sysinfo ({}) error, ret is {}", NameOf(step),
               comms::Code(status));
  }
}

}  // namespace varnel::service
