#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "service/system/collection/scrub/source_copy.h"

namespace varnel::service {

/// What became of one item.
struct ItemRecord {
  std::string item;  ///< its path in the archive
  std::string command{};
  std::string status{};
  uint64_t milliseconds = 0;
  uint64_t masked = 0;  ///< values
  std::string why_left_out{};
  std::vector<LeftOut> left_out{};  ///< of its files
};

/// Says what an archive holds, what was masked, and what is missing and why.
class Manifest {
 public:
  static constexpr const char* kName = "manifest.json";

  void Add(ItemRecord record) { records_.push_back(std::move(record)); }

  /// Adds it to the content that it tells of: every file there with its size and SHA-256, each on a
  /// line of its own. Throws std::system_error.
  void WriteInto(const std::filesystem::path& content) const;

 private:
  std::vector<ItemRecord> records_;
};

}  // namespace varnel::service
