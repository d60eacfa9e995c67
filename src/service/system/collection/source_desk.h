#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "utils/mutex.h"

namespace varnel::service {

/// Where the platform gets, for a directory or file that it archives, the copy that may leave the
/// board. There is one only while a collection runs. Thread-safe.
class SourceDesk {
 public:
  /// The copy, which goes with the pointer; null: there is none.
  using Copy = std::shared_ptr<const std::filesystem::path>;
  /// @param name of the archive
  using Copier = std::function<Copy(const std::string& source, const std::string& name)>;

  /// Opens the desk until the returned pointer goes.
  [[nodiscard]] std::shared_ptr<void> Open(Copier copier);
  [[nodiscard]] Copy CopyOf(const std::string& source, const std::string& name);

 private:
  utils::Mutex mutex_;
  std::shared_ptr<const Copier> copier_ GUARDED_BY(mutex_);
};

}  // namespace varnel::service
