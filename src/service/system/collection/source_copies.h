#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "service/system/collection/manifest.h"
#include "service/system/collection/scrub/source_copy.h"
#include "service/system/collection/source_desk.h"

namespace varnel::service {

/// Copies of sources for one collection, one at a time, and what is to be said of each. One thread.
class SourceCopies {
 public:
  /// @param directory free for it; it does not exist between two copies
  /// @param told gets the record of a copy when the copy goes
  SourceCopies(std::filesystem::path directory, CopySetup setup,
               std::function<void(ItemRecord record)> told);

  /// Of a directory or of a file. It goes with the pointer, which must go before the next one is
  /// made and before this object.
  /// @param item whose record it becomes
  [[nodiscard]] SourceDesk::Copy Copy(const std::string& source, const ItemRecord& item);

 private:
  [[nodiscard]] bool Fill(const std::string& source, std::filesystem::path& copy,
                          ItemRecord& record);

  const std::filesystem::path directory_;
  SourceCopy copier_;
  const std::function<void(ItemRecord record)> told_;
};

}  // namespace varnel::service
