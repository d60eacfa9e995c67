#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "service/system/collection/collection_item.h"
#include "service/system/collection/manifest.h"
#include "service/system/collection/scrub/held_values.h"

namespace varnel::service {

struct RunnerSetup {
  std::filesystem::path content;
  std::vector<std::filesystem::path> program_directories;
  const HeldValues* held = nullptr;  ///< outlives the runner
  std::function<bool()> stopped = [] { return false; };
  uint32_t limit_ms = 30'000;
  size_t max_bytes = size_t{16} << 20U;
};

/// Puts what programs print, and values, into files without secrets. A program that is missing,
/// fails, hangs or floods spoils its own file only. Thread-safe.
class ItemRunner {
 public:
  explicit ItemRunner(RunnerSetup setup) : setup_(std::move(setup)) {}

  [[nodiscard]] ItemRecord RunCommand(const CollectionItem& item) const;
  [[nodiscard]] ItemRecord WriteVariable(const CollectionItem& item) const;

 private:
  [[nodiscard]] std::optional<std::string> FindProgram(const std::string& name) const;
  void RunInto(const CollectionItem& item, const std::string& program, int file,
               ItemRecord& record) const;
  [[nodiscard]] std::filesystem::path FileOf(const CollectionItem& item) const {
    return setup_.content / item.output;
  }

  const RunnerSetup setup_;
};

}  // namespace varnel::service
