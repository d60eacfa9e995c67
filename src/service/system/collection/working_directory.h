#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "utils/clock.h"

namespace varnel::service {

/// Where a collection puts together what it collects, for nobody else to look into; it goes with
/// this object, with everything in it.
class WorkingDirectory {
 public:
  /// Nothing when it cannot be made, which is logged.
  [[nodiscard]] static std::optional<WorkingDirectory> Make(const std::filesystem::path& parent,
                                                            utils::Clock& clock);
  WorkingDirectory(WorkingDirectory&& other) noexcept;
  WorkingDirectory& operator=(WorkingDirectory&&) = delete;
  ~WorkingDirectory();

  const std::filesystem::path& Path() const { return path_; }
  /// What is to be packed.
  [[nodiscard]] std::filesystem::path Content() const { return path_ / "content"; }

 private:
  explicit WorkingDirectory(std::filesystem::path path) : path_(std::move(path)) {}

  std::filesystem::path path_;
};

/// Removes those that an interrupted run left, with everything in them.
void RemoveOldWorkingDirectories(const std::filesystem::path& parent);

}  // namespace varnel::service
