#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "utils/clock.h"
#include "utils/owned.h"
#include "utils/result.h"

namespace varnel::utils {

/// An exclusive advisory lock (flock) on a lock file, held while the object lives. It also excludes
/// other threads of this process.
class FileLock {
 public:
  /// Makes the file when it is missing. Waits at most `limit` for another holder. Without a lock
  /// the result says why, for people.
  static Result<FileLock, std::string> Acquire(const std::filesystem::path& file,
                                               std::chrono::milliseconds limit, Clock& clock);

  FileLock(FileLock&& other) noexcept = default;
  FileLock& operator=(FileLock&& other) = delete;
  ~FileLock();

 private:
  explicit FileLock(UniqueFd file) : file_(std::move(file)) {}

  UniqueFd file_;
};

}  // namespace varnel::utils
