#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "utils/file_digest.h"
#include "utils/held_directory.h"
#include "utils/owned.h"

namespace varnel::service {

/// A file on its way to a drive that may be slow, full, dying or pulled out at any moment. It has a
/// temporary name until the drive has given back what was written; unless Publish() succeeds it
/// goes. One thread.
class DriveFile {
 public:
  /// @param drive outlives it
  DriveFile(const utils::HeldDirectory& drive, std::error_code& error);
  DriveFile(const DriveFile&) = delete;
  DriveFile& operator=(const DriveFile&) = delete;
  ~DriveFile();

  [[nodiscard]] std::error_code Append(std::string_view bytes);
  /// Has everything on the drive, reads it back from there, and gives it its name, which must be
  /// free; after that the name lasts too.
  [[nodiscard]] std::error_code Publish(const std::string& name);
  /// Of a file that is published.
  [[nodiscard]] const utils::FileDigest& Digest() const { return digest_; }

 private:
  [[nodiscard]] std::error_code WriteOut() const;
  [[nodiscard]] std::error_code Finish();
  [[nodiscard]] std::error_code ReadBack() const;
  [[nodiscard]] std::error_code TakeName(const std::string& name);
  [[nodiscard]] std::error_code CheckNamed(const std::string& name) const;

  const utils::HeldDirectory& drive_;
  std::string name_;  ///< what goes with this object
  utils::UniqueFd file_;
  utils::Sha256 sum_;
  utils::FileDigest digest_;
};

}  // namespace varnel::service
