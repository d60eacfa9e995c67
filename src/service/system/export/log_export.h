#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "comms/status.h"
#include "hal_interface/hal_records.h"
#include "service/system/collection/log_collection_manager.h"
#include "service/system/export/drive_writer.h"
#include "utils/held_directory.h"
#include "utils/thread_pool.h"

namespace varnel::service {

/// What exports work with; what it refers to outlives them.
struct LogExportSetup {
  LogCollectionManager* collection = nullptr;
  bool encrypt = true;
  /// Sends a notification. Thread-safe.
  std::function<comms::CommsStatus(const std::string& method, nlohmann::json params)> notify{};
  /// Returns when nothing else of ours is busy with a drive just because it was plugged in.
  std::function<void()> settle = [] {};
};

/// Writes a diagnosis of everything onto drives that ask for it when they are plugged in: one
/// collection at a time, with those that clients ask for.
class LogExport {
 public:
  explicit LogExport(LogExportSetup setup) : setup_(std::move(setup)) {}
  /// Ends an export that runs, and waits for it.
  ~LogExport();
  LogExport(const LogExport&) = delete;
  LogExport& operator=(const LogExport&) = delete;

  /// From now on drives are looked at; the board's events keep a pointer to this object.
  void Start();

 private:
  static void Report(const hal_adapter::HalEventRecord* event, void* self);
  void Enqueue(const std::filesystem::path& directory);
  void Look(const std::filesystem::path& directory);
  void Begin(utils::HeldDirectory drive);
  void Export(utils::HeldDirectory drive, std::shared_ptr<void> turn);
  [[nodiscard]] nlohmann::json Outcome(const utils::HeldDirectory& drive) const;
  [[nodiscard]] nlohmann::json WriteOnto(const utils::HeldDirectory& drive) const;
  [[nodiscard]] std::optional<ExportNames> FreeNames(const DriveWriter& writer) const;
  [[nodiscard]] bool IsStopping() const { return stopping_ || setup_.collection->IsStopping(); }
  void Tell(nlohmann::json params) const;

  const LogExportSetup setup_;
  std::atomic<bool> stopping_ = false;
  std::jthread exporting_;                                // of the looking thread
  utils::ThreadPool looking_{1, "export-look", "COLLM"};  // last: it uses the rest
};

}  // namespace varnel::service
