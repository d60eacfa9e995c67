#include "virtual_board/common/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "virtual_board/common/fd.h"

namespace varnel::board {

namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  Fd read;
  Fd write;
};

Pipe MakePipe() {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return {};
  return {Fd(ends[0]), Fd(ends[1])};
}

[[noreturn]] void Become(char* const* arguments, const Pipe& out, const Pipe& err) {
  const int null = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ::dup2(null, STDIN_FILENO);
  ::dup2(out.write.Get(), STDOUT_FILENO);
  ::dup2(err.write.Get(), STDERR_FILENO);
  ::execvp(arguments[0], arguments);
  ::_exit(127);
}

int MillisecondsUntil(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<long>(left, 0, 1 << 30));
}

/// Takes what is there; an ended stream leaves the poll set.
void Drain(pollfd& stream, std::string& text) {
  if (stream.revents == 0) return;
  std::array<char, 65536> chunk{};
  const ssize_t got = ::read(stream.fd, chunk.data(), chunk.size());
  if (got > 0) {
    text.append(chunk.data(), static_cast<size_t>(got));
  } else {
    stream.fd = -1;
  }
}

/// Collects both streams until both end; false at the deadline.
bool Collect(const Pipe& out, const Pipe& err, Clock::time_point deadline, ProgramResult& result) {
  std::array<pollfd, 2> streams{{{out.read.Get(), POLLIN, 0}, {err.read.Get(), POLLIN, 0}}};
  while (streams[0].fd >= 0 || streams[1].fd >= 0) {
    if (::poll(streams.data(), streams.size(), MillisecondsUntil(deadline)) == 0) return false;
    Drain(streams[0], result.out);
    Drain(streams[1], result.err);
  }
  return true;
}

bool EndsInTime(pid_t child, Clock::time_point deadline) {
  const Fd handle(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  pollfd end{handle.Get(), POLLIN, 0};
  return ::poll(&end, 1, MillisecondsUntil(deadline)) == 1;
}

}  // namespace

std::vector<char*> ArgumentPointers(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments)
    pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

pid_t StartChild(const std::vector<std::string>& command) {
  const auto pointers = ArgumentPointers(command);
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("no process for " + command[0]);
  if (child > 0) return child;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::execvp(pointers[0], pointers.data());
  ::_exit(127);
}

bool HasEnded(pid_t child) {
  siginfo_t end{};
  return ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0 ||
         end.si_pid != 0;
}

int AwaitChild(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return ShellStatus(status);
}

int ShellStatus(int wait_status) {
  return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

ProgramResult RunProgram(const std::vector<std::string>& arguments,
                         std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  const auto pointers = ArgumentPointers(arguments);
  Pipe out = MakePipe();
  Pipe err = MakePipe();
  ProgramResult result;
  const pid_t child = ::fork();
  if (child < 0) return result;
  if (child == 0) Become(pointers.data(), out, err);
  out.write.Reset();
  err.write.Reset();
  const bool ended = Collect(out, err, deadline, result) && EndsInTime(child, deadline);
  if (!ended) ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  result.status = ended ? ShellStatus(status) : -1;
  return result;
}

}  // namespace varnel::board
