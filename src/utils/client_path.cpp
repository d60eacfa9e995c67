#include "utils/client_path.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string_view>
#include <system_error>
#include <utility>

#include "utils/temporary_name.h"

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

/// Also a directory in which another program is working.
bool HasTemporaryName(const fs::path& path) {
  return std::any_of(path.begin(), path.end(), [](const fs::path& name) {
    return name.string().starts_with(kTemporaryPrefix);
  });
}

bool MatchesStar(const std::string& pattern, const std::string& name) {
  return pattern.ends_with('*')
             ? name.starts_with(std::string_view(pattern).substr(0, pattern.size() - 1))
             : pattern == name;
}

/// Name by name, so that /etcetera is not in /etc.
bool IsWithin(const fs::path& path, const fs::path& directory) {
  auto name = path.begin();
  for (const fs::path& pattern : directory) {
    if (pattern.empty()) {
      continue;  // stands for a "/" at the end
    }
    if (name == path.end() || !MatchesStar(pattern.string(), name->string())) {
      return false;
    }
    ++name;
  }
  return true;
}

/// The directory as written or as it really is: either may be a link on this board.
bool IsWithinAny(const fs::path& path, const std::vector<fs::path>& directories) {
  return std::any_of(directories.begin(), directories.end(), [&](const fs::path& directory) {
    std::error_code error;
    const fs::path real = fs::weakly_canonical(directory, error);
    if (directory.empty()) {
      return false;  // a place that could not be told
    }
    return IsWithin(path, directory) || (!error && IsWithin(path, real));
  });
}

bool IsFreeOrRegular(const FilePlace& place) {
  struct stat info {};
  const int found = ::fstatat(place.directory.Fd(), place.name.c_str(), &info, AT_SYMLINK_NOFOLLOW);
  return found == 0 ? S_ISREG(info.st_mode) : errno == ENOENT;
}

/// Where the path leads at this moment.
std::optional<fs::path> RealDirectory(const fs::path& path) {
  std::error_code error;
  fs::path directory = fs::canonical(path, error);
  return error ? std::nullopt : std::optional(std::move(directory));
}

}  // namespace

ClientPathPolicy::ClientPathPolicy(ClientPathRules rules,
                                   std::shared_ptr<const ReportedDrives> drives)
    : rules_(std::move(rules)), drives_(std::move(drives)) {}

std::optional<FilePlace> ClientPathPolicy::Resolve(const std::string& client_path) const {
  if (!IsWellFormed(client_path)) {
    return std::nullopt;
  }
  const fs::path normal = fs::path(client_path).lexically_normal();
  const std::optional<fs::path> real = RealDirectory(normal.parent_path());
  if (!real || !IsFileName(normal.filename().string())) {
    return std::nullopt;
  }
  std::error_code error;
  // Judged by its real path and opened by it without following links: it is that directory, or
  // nothing.
  auto directory = HeldDirectory::OpenWithoutLinks(*real, error);
  if (!directory) {
    return std::nullopt;
  }
  FilePlace place{std::move(*directory), normal.filename().string()};
  if (!IsAllowed(place) || !IsFreeOrRegular(place)) {
    return std::nullopt;
  }
  return place;
}

bool ClientPathPolicy::IsAllowed(const FilePlace& place) const {
  const fs::path path = place.Path();
  if (HasTemporaryName(path)) {
    return false;
  }
  return drives_->Hold(place.directory) ||
         (IsWithinAny(path, rules_.allowed) && !IsWithinAny(path, rules_.forbidden) &&
          !IsWithinAny(path, rules_.own_places));
}

}  // namespace varnel::utils
