#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "utils/owned.h"

namespace varnel::utils {

/// An open directory: what its name leads to later, and who puts a link there, does not matter to
/// whoever works relative to the descriptor.
class HeldDirectory {
 public:
  /// Of our own places: links are followed.
  [[nodiscard]] static std::optional<HeldDirectory> Open(const std::filesystem::path& path,
                                                         std::error_code& error);
  /// Of an absolute path without links, "." and ".."; one on the way is an error.
  [[nodiscard]] static std::optional<HeldDirectory> OpenWithoutLinks(
      const std::filesystem::path& path, std::error_code& error);
  /// A directory in this one; a link in its place is an error.
  [[nodiscard]] std::optional<HeldDirectory> OpenIn(const std::string& name,
                                                    std::error_code& error) const;

  int Fd() const { return fd_.Get(); }
  /// As it was opened; for messages, and for programs that only read.
  const std::filesystem::path& Path() const { return path_; }
  /// The path still leads here, and on the same mount: not so after a drive was unplugged, when
  /// writes to open files may still seem to succeed.
  [[nodiscard]] bool IsStillThere() const;
  /// What was made, renamed or removed in it survives a power failure.
  [[nodiscard]] std::error_code Sync() const;

 private:
  HeldDirectory(UniqueFd fd, std::filesystem::path path);
  static std::optional<HeldDirectory> Make(UniqueFd fd, const std::filesystem::path& path,
                                           std::error_code& error);

  UniqueFd fd_;
  std::filesystem::path path_;
};

/// A file to be written: the directory is held, the name is in no need of being looked up.
struct FilePlace {
  /// Of our own places: links in the directory's path are followed.
  [[nodiscard]] static std::optional<FilePlace> Of(const std::filesystem::path& path,
                                                   std::error_code& error);

  HeldDirectory directory;
  std::string name;

  std::filesystem::path Path() const { return directory.Path() / name; }
};

}  // namespace varnel::utils
