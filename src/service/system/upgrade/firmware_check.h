#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "service/system/upgrade/firmware_description.h"
#include "service/system/upgrade/firmware_digest.h"
#include "utils/mutex.h"
#include "utils/owned.h"

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

  /// The same of a file whose bytes have been read already.
  [[nodiscard]] bool CheckWrittenFile(const std::filesystem::path& file,
                                      const FirmwareDescription& description,
                                      const FirmwareDigests& digests);
  /// Whether digests of a firmware need SHA-256 too.
  [[nodiscard]] bool WantsSha256() const { return !key_file_.empty(); }

  /// False for a description that lacks the signature which is asked for: no file can be its
  /// firmware. Logged.
  [[nodiscard]] bool MayPass(const FirmwareDescription& description) const;

  /// We have renamed the file that was found good last to this.
  void Follow(const std::filesystem::path& file);

 private:
  /// A file as it was when it was found good.
  struct Known {
    struct stat info {};
    FirmwareDescription description;
  };

  struct Opened {
    utils::UniqueFd fd;
    struct stat info {};
  };

  [[nodiscard]] static std::optional<Opened> Open(const std::filesystem::path& file,
                                                  const FirmwareDescription& description);
  [[nodiscard]] bool Judge(const Opened& opened, const FirmwareDescription& description,
                           const FirmwareDigests& digests);
  [[nodiscard]] bool IsKnown(const struct stat& info, const FirmwareDescription& description) const;
  void Forget(const struct stat& info);
  [[nodiscard]] std::optional<FirmwareDigests> Read(int fd) const;
  [[nodiscard]] bool IsSigned(const std::string& sha256, const std::string& signature) const;

  const std::filesystem::path key_file_;
  const std::function<bool()> stop_;
  mutable utils::Mutex mutex_;
  std::optional<Known> known_ GUARDED_BY(mutex_);
};

}  // namespace varnel::service
