#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>

#include "utils/held_directory.h"

namespace varnel::service {

/// What an archive and the file beside it are called on a drive, without their endings.
struct ExportNames {
  std::string stem;

  std::string Archive() const { return stem + ".tar.gz"; }
  /// JSON: name, size and SHA-256 of the archive. It is there only when the archive is.
  std::string Note() const { return stem + ".json"; }
};

/// Writes archives onto a drive. Whatever happens to the drive meanwhile, what has its final name
/// there is whole, and has been read back; nothing that was there before is touched. One thread.
class DriveWriter {
 public:
  /// @param drive outlives it
  /// @param stopped asked again and again: whether to give up
  DriveWriter(const utils::HeldDirectory& drive, std::function<bool()> stopped)
      : drive_(drive), stopped_(std::move(stopped)) {}

  /// Neither name is taken.
  [[nodiscard]] bool IsFree(const ExportNames& names) const;
  /// Whether the drive can be written to at all.
  [[nodiscard]] std::error_code Try() const;
  /// Copies the archive and puts the note beside it. When this has succeeded both are on the drive,
  /// which is still the one that is mounted there.
  [[nodiscard]] std::error_code Write(const std::filesystem::path& archive,
                                      const ExportNames& names) const;

 private:
  [[nodiscard]] std::error_code WriteBoth(int archive, const ExportNames& names) const;
  [[nodiscard]] std::error_code WriteNote(const std::string& text, const ExportNames& names) const;
  [[nodiscard]] bool HasRoomFor(int archive) const;

  const utils::HeldDirectory& drive_;
  const std::function<bool()> stopped_;
};

}  // namespace varnel::service
