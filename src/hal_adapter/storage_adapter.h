#pragma once

#include <filesystem>

#include "hal_adapter/area_start.h"

namespace varnel::hal_adapter {

/// Where varnel keeps its files; a path that could not be read is empty.
struct StoragePaths {
  std::filesystem::path config;
  std::filesystem::path config_save;
  std::filesystem::path user_data;
  std::filesystem::path temporary;
};

/// The storage area: the board's directories, read once.
class StorageAdapter {
 public:
  explicit StorageAdapter(AreaInit init, const HalRegistry& registry = HalRegistry::Instance());

  /// Once, before anything else. False when a path is missing.
  [[nodiscard]] bool Start();
  const StoragePaths& Paths() const { return paths_; }

 private:
  bool Read(StoragePathType type, std::filesystem::path& path, const char* failure) const;

  const AreaInit init_;
  const HalRegistry& registry_;
  const StorageHalInterface* table_ = nullptr;
  StoragePaths paths_;
};

}  // namespace varnel::hal_adapter
