#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "service/system/upgrade/firmware_description.h"
#include "utils/mutex.h"

namespace varnel::service {

/// Whether a file is the firmware that a description speaks of. Thread-safe.
class FirmwareCheck {
 public:
  /// Whether an earlier outcome may stand in for reading the file again, as long as its inode,
  /// size and times have not changed.
  enum class Reading { kOnceAFile, kAlways };

  /// @param key_file Ed25519 public key (PEM) with which all firmware has to be signed; empty: none
  ///   is. One that cannot be read lets no firmware pass.
  /// @param stop ends a check, which fails
  explicit FirmwareCheck(std::filesystem::path key_file = {}, std::function<bool()> stop = nullptr);

  /// Existence, size, MD5, signature; what is wrong is logged. A link is not followed.
  [[nodiscard]] bool CheckFirmwareFile(const std::filesystem::path& file,
                                       const FirmwareDescription& description,
                                       Reading reading = Reading::kOnceAFile);

  /// We have renamed the file that was found good last to this.
  void Follow(const std::filesystem::path& file);

 private:
  /// A file as it was when it was found good.
  struct Known {
    struct stat info {};
    FirmwareDescription description;
  };

  [[nodiscard]] bool IsKnown(const struct stat& info, const FirmwareDescription& description) const;
  [[nodiscard]] bool HasRightBytes(int fd, const FirmwareDescription& description) const;
  [[nodiscard]] bool IsSigned(const std::string& sha256, const std::string& signature) const;

  const std::filesystem::path key_file_;
  const std::function<bool()> stop_;
  mutable utils::Mutex mutex_;
  std::optional<Known> known_ GUARDED_BY(mutex_);
};

}  // namespace varnel::service
