#include "utils/client_path.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <string_view>
#include <system_error>
#include <utility>

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

/// Also what keeps the path from being read as an option by other programs: it begins with "/".
bool IsWellFormed(const std::string& path) {
  return path.starts_with('/') && !path.ends_with('/') && path.size() < PATH_MAX &&
         std::none_of(path.begin(), path.end(), IsControl);
}

bool IsFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.size() <= NAME_MAX;
}

using NameMatch = bool (*)(const std::string& pattern, const std::string& name);

bool SameName(const std::string& pattern, const std::string& name) {
  return pattern == name;
}

bool MatchesStar(const std::string& pattern, const std::string& name) {
  return pattern.ends_with('*')
             ? name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1))
             : pattern == name;
}

/// Name by name, so that /etcetera is not in /etc.
bool IsWithin(const fs::path& path, const fs::path& directory, NameMatch matches) {
  auto name = path.begin();
  for (const fs::path& pattern : directory) {
    if (pattern.empty()) {
      continue;  // stands for a "/" at the end
    }
    if (name == path.end() || !matches(pattern.string(), name->string())) {
      return false;
    }
    ++name;
  }
  return true;
}

/// The directory as written or as it really is: either may be a link on this board.
bool IsWithinAny(const fs::path& path, const std::vector<fs::path>& directories,
                 NameMatch matches = SameName) {
  return std::any_of(directories.begin(), directories.end(), [&](const fs::path& directory) {
    std::error_code error;
    const fs::path real = fs::weakly_canonical(directory, error);
    return IsWithin(path, directory, matches) || (!error && IsWithin(path, real, matches));
  });
}

bool IsFreeOrRegular(const fs::path& target) {
  std::error_code error;
  const fs::file_type type = fs::symlink_status(target, error).type();
  return type == fs::file_type::not_found || type == fs::file_type::regular;
}

}  // namespace

bool IsMountPoint(const fs::path& directory) {
  struct stat here {};
  struct stat above {};
  return ::stat(directory.c_str(), &here) == 0 && ::stat((directory / "..").c_str(), &above) == 0 &&
         here.st_dev != above.st_dev;
}

ClientPathPolicy::ClientPathPolicy(ClientPathRules rules) : rules_(std::move(rules)) {}

std::optional<fs::path> ClientPathPolicy::Resolve(const std::string& client_path) const {
  if (!IsWellFormed(client_path)) {
    return std::nullopt;
  }
  const fs::path normal = fs::path(client_path).lexically_normal();
  std::error_code error;
  const fs::path directory = fs::canonical(normal.parent_path(), error);
  if (error || !fs::is_directory(directory, error) || !IsFileName(normal.filename().string())) {
    return std::nullopt;
  }
  fs::path target = directory / normal.filename();
  if (!IsAllowed(target) || !IsFreeOrRegular(target)) {
    return std::nullopt;
  }
  return target;
}

void ClientPathPolicy::AllowDirectory(const fs::path& directory) {
  if (!directory.is_absolute() || !directory.has_relative_path()) {
    return;
  }
  const std::lock_guard lock(mutex_);
  if (std::find(drives_.begin(), drives_.end(), directory) == drives_.end()) {
    drives_.push_back(directory);
  }
}

bool ClientPathPolicy::IsAllowed(const fs::path& target) const {
  if (IsOnDrive(target)) {
    return true;
  }
  return !IsWithinAny(target, rules_.forbidden, MatchesStar) &&
         !IsWithinAny(target, rules_.own_state) &&
         (rules_.allowed.empty() || IsWithinAny(target, rules_.allowed));
}

bool ClientPathPolicy::IsOnDrive(const fs::path& target) const {
  std::unique_lock lock(mutex_);
  const std::vector<fs::path> drives = drives_;
  lock.unlock();  // a dying drive can block what follows
  return std::any_of(drives.begin(), drives.end(), [&](const fs::path& drive) {
    return IsWithinAny(target, {drive}) && rules_.is_mount_point(drive);
  });
}

}  // namespace varnel::utils
