#pragma once

#include <cerrno>
#include <filesystem>
#include <string>

#include "utils/held_directory.h"

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

/// Marks a temporary file or directory, which is open as `fd`, as one that is in use until it is
/// closed; the mark does not outlive us. False when it was removed before it could be marked.
[[nodiscard]] bool HoldTemporary(int directory, const char* path, int fd);

/// Makes a file of mode 0600 that is held, for reading and writing; -1 with errno when that fails,
/// EEXIST also when it was taken for a leftover at once.
[[nodiscard]] int CreateHeldFile(int directory, const char* path);

/// Removes the files in an open directory: no directories, and nothing that links lead to.
void RemoveFilesIn(int directory);

enum class Leftovers {
  kAbandoned,  ///< what nobody holds
  kAll,        ///< also what threads of ours still write, at the process's end
};

/// Removes what an interrupted run of ours left in a directory: names with the prefix, if they
/// belong to our user. On a file system without owners everything belongs to the user that mounted
/// it, which is root on the board, as we are. Of directories one level goes: we make no deeper
/// ones, and somebody else's drive can be as deep as it likes.
void RemoveLeftovers(const std::filesystem::path& directory,
                     Leftovers which = Leftovers::kAbandoned);
void RemoveLeftovers(const HeldDirectory& directory, Leftovers which = Leftovers::kAbandoned);

}  // namespace varnel::utils
