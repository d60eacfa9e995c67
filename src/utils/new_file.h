#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <system_error>

#include "utils/held_directory.h"
#include "utils/owned.h"

namespace varnel::utils {

/// A file on its way to a place: it has no name until it is whole, where the file system can do
/// that, so that nothing of it is left whatever interrupts us; elsewhere a temporary name, and what
/// earlier files left under such names in that directory is removed first.
class NewFile {
 public:
  /// @param place must outlive the file
  [[nodiscard]] static std::optional<NewFile> Create(const FilePlace& place,
                                                     std::error_code& error);
  NewFile(NewFile&& other) noexcept = default;
  NewFile(const NewFile&) = delete;
  /// Without Publish() it goes.
  ~NewFile();

  int Fd() const { return file_.Get(); }
  /// Syncs it and gives it its name; a file or link of that name is replaced in one step. An error
  /// leaves the old one, except one of the last look, which comes afterwards: whether the directory
  /// could be synced and is still where the place said.
  [[nodiscard]] std::error_code Publish(mode_t mode);

 private:
  explicit NewFile(const FilePlace& place) : place_(&place) {}
  std::error_code MakeNamed();
  std::error_code Finish(mode_t mode) const;
  std::error_code CopyToNamed(mode_t mode);
  std::error_code TakeTemporaryName(mode_t mode);
  std::error_code TakeName(mode_t mode);
  std::error_code Link(const std::string& name) const;

  const FilePlace* place_;
  UniqueFd file_;
  std::string temporary_;  ///< empty while it has no name
};

/// Copies what is left of an open file into another.
[[nodiscard]] std::error_code CopyRest(int from, int to);

}  // namespace varnel::utils
