#include "virtual_board/launcher/service.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "virtual_board/common/fd.h"
#include "virtual_board/common/process.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::board {

using nlohmann::json;

Service::Service(std::string name, std::vector<std::string> command, Environment environment)
    : name_(std::move(name)), command_(std::move(command)), environment_(std::move(environment)) {}

bool Service::Start(const std::vector<std::string>& arguments) {
  if (Running()) return false;
  if (!arguments.empty()) {
    command_.resize(1);
    command_.insert(command_.end(), arguments.begin(), arguments.end());
  }
  const std::string log_path = std::string(inside::kLog) + "/" + name_ + ".log";
  const Fd log(::open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
  const auto pointers = ArgumentPointers(command_);
  const pid_t child = ::fork();
  if (child == 0) Become(pointers.data(), log.Get());
  if (child < 0) return false;
  pid_ = child;
  return true;
}

void Service::Become(char* const* command, int log) const {
  ::setpgid(0, 0);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  ::dup2(log, STDOUT_FILENO);
  ::dup2(log, STDERR_FILENO);
  for (const auto& [name, value] : environment_) ::setenv(name.c_str(), value.c_str(), 1);
  ::execv(command[0], command);
  ::_exit(127);
}

bool Service::Signal(int number) const {
  return Running() && ::kill(pid_, number) == 0;
}

void Service::Ended(int wait_status) {
  pid_ = 0;
  ended_ = true;
  wait_status_ = wait_status;
}

json Service::Describe() const {
  if (Running()) return {{"state", "running"}, {"pid", pid_}};
  if (!ended_) return {{"state", "stopped"}};
  if (WIFEXITED(wait_status_)) return {{"state", "exited"}, {"status", WEXITSTATUS(wait_status_)}};
  return {{"state", "killed"}, {"signal", WTERMSIG(wait_status_)}};
}

}  // namespace varnel::board
