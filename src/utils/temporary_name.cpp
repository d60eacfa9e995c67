#include "utils/temporary_name.h"

#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <system_error>

#include "utils/directory_entries.h"

namespace varnel::utils {
namespace {

namespace fs = std::filesystem;

bool IsOurs(const fs::path& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && info.st_uid == ::geteuid();
}

}  // namespace

std::string TemporaryName() {
  constexpr char kCharacters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  std::uniform_int_distribution<size_t> place(0, sizeof kCharacters - 2);
  std::string name = kTemporaryPrefix;
  for (int i = 0; i < 6; ++i) {
    name += kCharacters[place(random)];
  }
  return name;
}

void RemoveLeftovers(const fs::path& directory) {
  std::error_code error;
  for (const auto& entry : DirectoryEntries(directory, error)) {
    if (entry.path().filename().string().starts_with(kTemporaryPrefix) && IsOurs(entry.path())) {
      fs::remove_all(entry.path(), error);
    }
  }
}

}  // namespace varnel::utils
