#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace varnel::board {

struct ProgramResult {
  int status = -1;  ///< exit status, 128 + signal, or -1 when it was killed at the time limit
  std::string out;  ///< standard output
  std::string err;  ///< standard error
};

/// Pointers for execv; valid as long as `arguments` is not changed.
std::vector<char*> ArgumentPointers(const std::vector<std::string>& arguments);

/// Runs a program found through PATH to its end, or kills it at the time limit.
ProgramResult RunProgram(const std::vector<std::string>& arguments,
                         std::chrono::milliseconds limit = std::chrono::seconds(30));

/// Starts a program found through PATH, which ends with the calling thread. Throws
/// std::runtime_error when there is no process left.
pid_t StartChild(const std::vector<std::string>& command);
/// Whether it has; it is left to be waited for.
bool HasEnded(pid_t child);
/// Waits for its end; as ShellStatus() tells it.
int AwaitChild(pid_t child);

/// Exit status as a shell tells it: 128 + signal for a killed process.
int ShellStatus(int wait_status);

}  // namespace varnel::board
