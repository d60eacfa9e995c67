#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace varnel::bench {
namespace {

namespace fs = std::filesystem;

fs::path ProcOf(pid_t pid) {
  return fs::path("/proc") / std::to_string(pid);
}

std::string Slurp(const fs::path& file) {
  std::ifstream stream(file);
  if (!stream) {
    throw std::runtime_error("cannot read " + file.string());
  }
  return {std::istreambuf_iterator<char>(stream), {}};
}

int64_t StatusField(const fs::path& file, const std::string& name) {
  const std::string text = Slurp(file);
  const size_t at = text.find("\n" + name + ":");
  if (at == std::string::npos) {
    throw std::runtime_error(name + " is missing in " + file.string());
  }
  return std::stoll(text.substr(at + name.size() + 2));
}

}  // namespace

ProcessSize SizeOf(pid_t pid) {
  const fs::path status = ProcOf(pid) / "status";
  const fs::directory_iterator descriptors(ProcOf(pid) / "fd");
  return {StatusField(status, "VmRSS"), StatusField(status, "VmHWM"),
          StatusField(status, "Threads"), std::distance(begin(descriptors), end(descriptors))};
}

void ForgetPeak(pid_t pid) {
  constexpr const char* kPeak = "5";
  std::ofstream(ProcOf(pid) / "clear_refs") << kPeak;
}

double CpuSeconds(pid_t pid) {
  const std::string stat = Slurp(ProcOf(pid) / "stat");
  // The name in brackets may hold spaces; user and system time are the 12th and 13th field behind
  // it.
  std::istringstream fields(stat.substr(stat.rfind(')') + 1));
  std::string skipped;
  for (int field = 0; field < 11; ++field) {
    fields >> skipped;
  }
  double user = 0;
  double system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int64_t VoluntarySwitches(pid_t pid) {
  int64_t sum = 0;
  for (const auto& task : fs::directory_iterator(ProcOf(pid) / "task")) {
    sum += StatusField(task.path() / "status", "voluntary_ctxt_switches");
  }
  return sum;
}

Child::Child(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& word : command) {
    arguments.push_back(const_cast<char*>(word.c_str()));  // the C interface takes no const
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const int error =
      posix_spawn(&pid_, command.at(0).c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    pid_ = -1;
    throw std::runtime_error("cannot start " + command[0] + ": " + std::strerror(error));
  }
}

Child::~Child() {
  if (pid_ > 0) {
    Signal(SIGKILL);
    Wait();
  }
}

void Child::Signal(int number) const {
  kill(pid_, number);
}

int Child::Wait() {
  int status = 0;
  while (pid_ > 0 && waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Run(const std::vector<std::string>& command) {
  if (const int status = Child(command).Wait(); status != 0) {
    throw std::runtime_error(command[0] + " ended with " + std::to_string(status));
  }
}

}  // namespace varnel::bench
