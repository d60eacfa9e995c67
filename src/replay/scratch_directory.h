#pragma once

#include <filesystem>

namespace varnel::replay {

/// A directory that goes with this object, with everything in it.
class ScratchDirectory {
 public:
  /// Throws std::system_error.
  explicit ScratchDirectory(const std::filesystem::path& parent);
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace varnel::replay
