#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "comms/comms_manager.h"
#include "service/cloud/upload/file_uploader.h"
#include "service/system/collection/collection_notifier.h"
#include "service/system/collection/collection_request.h"
#include "service/system/collection/collector_setup.h"
#include "utils/client_path.h"
#include "utils/mutex.h"
#include "utils/permits.h"

namespace varnel::service {

/// What the log collection manager works with; what it refers to outlives it.
struct LogCollectionSetup {
  comms::CommsManager* comms = nullptr;
  const utils::ClientPathPolicy* paths = nullptr;
  std::unique_ptr<FileUploader> uploader = std::make_unique<NoUploader>();
  CollectorSetup collector{};
};

/// The method "system.collect_sysinfo": collects for diagnosis in the background, one collection at
/// a time, uploads the archive or copies it. Thread-safe.
class LogCollectionManager {
 public:
  explicit LogCollectionManager(LogCollectionSetup setup);
  /// Ends a collection that runs, and waits for it.
  ~LogCollectionManager();
  LogCollectionManager(const LogCollectionManager&) = delete;
  LogCollectionManager& operator=(const LogCollectionManager&) = delete;

  /// Removes what an interrupted collection left, and registers the method; the manager of the
  /// methods keeps a reference to this object from then on.
  comms::CommsStatus Start();

  /// At the end of the process, which waits for no thread: what a collection that runs has made
  /// goes, and no other one begins.
  void Abandon();

  nlohmann::json ReqCallbackCollectSysinfo(const nlohmann::json& params);

  /// For whoever collects for another purpose: one collection at a time, whoever asks. Null while
  /// one runs.
  [[nodiscard]] std::shared_ptr<void> TakeTurn() { return turns_.TryTake(); }
  [[nodiscard]] const CollectorSetup& Collecting() const { return setup_.collector; }
  [[nodiscard]] bool IsStopping() const { return stopping_; }

 private:
  void RemoveLeftovers() const;
  void Collect(const CollectionRequest& request);
  void Deliver(const CollectionRequest& request, const std::filesystem::path& archive);
  void Upload(const std::filesystem::path& archive, uint64_t size);
  void Copy(const std::filesystem::path& archive, const std::string& filepath, uint64_t size);

  const LogCollectionSetup setup_;
  const CollectionNotifier notifier_;
  utils::Permits turns_{1};
  std::atomic<bool> stopping_ = false;
  utils::Mutex thread_mutex_;
  std::jthread thread_ GUARDED_BY(thread_mutex_);  // last: it uses the rest
};

}  // namespace varnel::service
