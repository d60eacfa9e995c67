#include "service/system/collection/log_collection_manager.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

#include "comms/json_rpc_message.h"
#include "comms/log_payload.h"
#include "service/system/collection/sysinfo_collector.h"
#include "service/system/collection/working_directory.h"
#include "utils/last_error.h"
#include "utils/log.h"
#include "utils/log_text.h"
#include "utils/new_file.h"
#include "utils/owned.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "COLLM";
constexpr uint32_t kFromCloud = 1;
constexpr size_t kLoggedBytes = 1024;
constexpr mode_t kDeliveredMode = 0644;

json State(const char* state) {
  return {{"state", state}};
}

std::error_code CopyInto(const utils::FilePlace& place, const fs::path& source) {
  const utils::UniqueFd from(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!from) return utils::LastError();
  std::error_code error;
  auto file = utils::NewFile::Create(place, error);
  if (file) error = utils::CopyRest(from.Get(), file->Fd());
  return error ? error : file->Publish(kDeliveredMode);
}

}  // namespace

LogCollectionManager::LogCollectionManager(LogCollectionSetup setup)
    : setup_(std::move(setup)), notifier_([this](const std::string& method, json params) {
        return setup_.comms->SendNotification("system/notification", method, std::move(params));
      }) {}

LogCollectionManager::~LogCollectionManager() {
  stopping_ = true;
}

comms::CommsStatus LogCollectionManager::Start() {
  RemoveLeftovers();
  const auto status = setup_.comms->RegisterMethod(
      "system.collect_sysinfo", kFromCloud, comms::MethodKind::kCommand,
      [this](const json& params) { return ReqCallbackCollectSysinfo(params); });
  if (status == comms::CommsStatus::kOk)
    VLOG_INFO(kTag, "Log collection manager initialized via CommsManager.");
  return status;
}

void LogCollectionManager::Abandon() {
  stopping_ = true;
  RemoveLeftovers();
}

void LogCollectionManager::RemoveLeftovers() const {
  RemoveOldWorkingDirectories(setup_.collector.storage);
  ::unlink(setup_.collector.password_file.c_str());
}

json LogCollectionManager::ReqCallbackCollectSysinfo(const json& params) {
  VLOG_INFO(kTag, "Receive JSON-RPC message: {}", comms::LogJson(params, kLoggedBytes));
  auto request = ReadCollectionRequest(params);
  if (!request) return request.Why();
  if (!request->filepath.empty() && !setup_.paths->Resolve(request->filepath)) {
    VLOG_ERROR(kTag, "method: system.collect_sysinfo, invalid parameter");
    return comms::MakeError(comms::RpcError::kInvalidParams, "Invalid params");
  }
  auto turn = TakeTurn();
  if (!turn) {
    VLOG_WARN(kTag, "Collection already in progress");
    return State("busy");
  }
  if (!request->upload && request->filepath.empty()) VLOG_INFO(kTag, "Neither upload nor copy");
  const utils::MutexLock lock(thread_mutex_);
  thread_ = utils::SpawnGuarded(
      "collect", kTag,
      [this, taken = std::move(turn), asked = *std::move(request)] { Collect(asked); });
  return State("success");
}

void LogCollectionManager::Collect(const CollectionRequest& request) {
  CollectionOrder order = request.order;
  const auto now = std::chrono::system_clock::to_time_t(setup_.collector.clock->WallNow());
  order.archive_name = DeliveredName(now, order.encrypt);
  std::string reason;
  try {
    SysinfoCollector collector(setup_.collector, std::move(order), [this] { return IsStopping(); });
    const auto archive = collector.Collect();
    if (archive) return Deliver(request, *archive);
    reason = archive.Why();
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "filesystem error: {}", utils::LogText(error.what()));
    reason = error.what();
  }
  VLOG_ERROR(kTag, "Collection failed: {}", utils::LogText(reason));
  notifier_.Failed(CollectionStep::kInner, reason);
}

void LogCollectionManager::Deliver(const CollectionRequest& request, const fs::path& archive) {
  const uint64_t size = fs::file_size(archive);
  notifier_.Completed(CollectionStep::kInner, archive.filename(), size);
  VLOG_INFO(kTag, "Prepare to upload or copy");
  if (request.upload) Upload(archive, size);
  if (!request.filepath.empty()) Copy(archive, request.filepath, size);
}

void LogCollectionManager::Upload(const fs::path& archive, uint64_t size) {
  if (!setup_.uploader->HasAccess()) {
    VLOG_ERROR(kTag, "PushFileToServer: access code invalid, cannot upload");
    return notifier_.Disconnected(CollectionStep::kUpload, "no access to the cloud");
  }
  const auto tell = [this](uint64_t sent, uint64_t all) {
    VLOG_INFO(kTag, "Upload progress: {}/{} bytes ({}%)", sent, all,
              all == 0 ? 100 : sent * 100 / all);
    return !IsStopping();
  };
  const auto url = setup_.uploader->Upload(
      {.file = archive, .name = archive.filename(), .log = true, .progress = tell, .stop = [this] {
         return IsStopping();
       }});
  if (!url) {
    VLOG_ERROR(kTag, "PushFileToServer: upload failed for {}", archive.filename().string());
    return notifier_.Failed(CollectionStep::kUpload, "the upload failed");
  }
  if (url->empty()) {
    VLOG_INFO(kTag, "PushFileToServer: upload success");
  } else {
    VLOG_INFO(kTag, "PushFileToServer: upload success, download_url={}", utils::MaskUrl(*url));
  }
  notifier_.Completed(CollectionStep::kUpload, archive.filename(), size);
}

/// The path is judged anew: while it was collected others may have changed what it leads to.
void LogCollectionManager::Copy(const fs::path& archive, const std::string& filepath,
                                uint64_t size) {
  VLOG_INFO(kTag, "Copy to file");
  const auto place = setup_.paths->Resolve(filepath);
  if (!place) return notifier_.Failed(CollectionStep::kCopy, "the path is not allowed any more");
  if (const std::error_code error = CopyInto(*place, archive)) {
    VLOG_ERROR(kTag, "filesystem error: {}", error.message());
    return notifier_.Failed(CollectionStep::kCopy, error.message());
  }
  notifier_.Completed(CollectionStep::kCopy, filepath, size);
}

}  // namespace varnel::service
