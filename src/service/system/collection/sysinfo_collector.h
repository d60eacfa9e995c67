#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "service/system/collection/collection_item.h"
#include "service/system/collection/collector_setup.h"
#include "service/system/collection/item_runner.h"
#include "service/system/collection/manifest.h"
#include "service/system/collection/packing.h"
#include "service/system/collection/source_copies.h"
#include "service/system/collection/working_directory.h"
#include "utils/mutex.h"
#include "utils/result.h"

namespace varnel::service {

/// One collection: gathers what an order asks for, without secrets, into one archive in a directory
/// of its own, which goes with this object. One thread, which it makes idle.
class SysinfoCollector {
 public:
  /// @param setup outlives it
  /// @param stopped asked again and again: whether to give up
  SysinfoCollector(const CollectorSetup& setup, CollectionOrder order,
                   std::function<bool()> stopped);
  SysinfoCollector(const SysinfoCollector&) = delete;
  SysinfoCollector& operator=(const SysinfoCollector&) = delete;

  /// The finished archive, under the name of the order, or why there is none. Once.
  [[nodiscard]] utils::Result<std::filesystem::path, std::string> Collect();

 private:
  [[nodiscard]] bool CheckReady() const;
  [[nodiscard]] std::filesystem::path CollectOrThrow();
  void CollectCategories();
  void CollectBasic();
  void CollectNetwork();
  void CollectLogs();
  void CollectAiDetect();
  void CollectCoredump();
  void CollectVariables();
  void CollectPlatform(uint32_t type, const std::string& directory);
  void CollectMakers(Category category);

  void Run(const std::vector<CollectionItem>& items);
  void RunSideBySide(const std::vector<CollectionItem>& items);
  void Take(const CollectionItem& item);
  void PackDirectory(const std::string& source, const std::string& output);
  void CopyFile(const CollectionItem& item);
  [[nodiscard]] CopySetup CopySetupOf() const;
  [[nodiscard]] PackingSetup PackingSetupOf() const;
  [[nodiscard]] RunnerSetup RunnerSetupOf() const;
  void Tell(ItemRecord record);

  const CollectorSetup& setup_;
  const CollectionOrder order_;
  const std::function<bool()> stopped_;
  const std::shared_ptr<const HeldValues> held_;
  std::optional<WorkingDirectory> directory_;
  bool ready_ = false;
  std::optional<Packing> packing_;
  std::optional<ItemRunner> runner_;
  utils::Mutex manifest_mutex_;
  Manifest manifest_ GUARDED_BY(manifest_mutex_);
  std::optional<SourceCopies> copies_;
};

}  // namespace varnel::service
