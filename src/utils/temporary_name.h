#pragma once

#include <cerrno>
#include <filesystem>
#include <string>

namespace varnel::utils {

/// Begins the names of files and directories that become something else or go. What an interruption
/// leaves of them is never read.
inline constexpr const char* kTemporaryPrefix = ".varnel-";

/// The prefix and six random characters.
[[nodiscard]] std::string TemporaryName();

/// Calls `make` with new names until the name is free; what the last call returned. It returns a
/// negative value with errno for a failure.
template <class Make>
[[nodiscard]] int MakeTemporary(std::string& name, Make make) {
  constexpr int kTries = 100;
  int result = -1;
  for (int i = 0; i < kTries; ++i) {
    name = TemporaryName();
    result = make(name.c_str());
    if (result >= 0 || errno != EEXIST) {
      break;
    }
  }
  return result;
}

/// Removes what an interrupted run of ours left in a directory: names with the prefix, if they
/// belong to us. Only while nothing is being written there.
void RemoveLeftovers(const std::filesystem::path& directory);

}  // namespace varnel::utils
