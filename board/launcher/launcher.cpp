#include "virtual_board/launcher/launcher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "virtual_board/common/await.h"
#include "virtual_board/common/process.h"
#include "virtual_board/launcher/prepare.h"
#include "virtual_board/launcher/sandbox.h"

namespace varnel::board {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr auto kBootLimit = 20s;
constexpr int kStopLimitMs = 20'000;

bool BrokerListens(const Layout& layout) {
  return static_cast<bool>(ConnectUnix(layout.BrokerSocket(), SOCK_STREAM));
}

[[noreturn]] void Become(const std::vector<std::string>& command) {
  ::execvp(command[0].c_str(), ArgumentPointers(command).data());
  throw std::runtime_error(command[0] + ": " + std::strerror(errno));
}

/// A session of its own, so that neither a Ctrl-C nor the end of the terminal reaches the board.
[[noreturn]] void BecomeInBackground(const std::vector<std::string>& command, const fs::path& log) {
  ::setsid();
  const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  ::dup2(out, STDOUT_FILENO);
  ::dup2(out, STDERR_FILENO);
  ::execvp(command[0].c_str(), ArgumentPointers(command).data());
  ::_exit(127);
}

}  // namespace

fs::path ToolsDirectory() {
  return fs::read_symlink("/proc/self/exe").parent_path();
}

void Boot(const BootOptions& options) {
  const Layout layout(options.directory);
  if (ControlClient(layout).Connected()) throw std::runtime_error("the board runs already");
  PrepareBoard(options, layout, ToolsDirectory());
  const auto command = SandboxCommand(options, layout, ToolsDirectory());
  if (options.foreground) Become(command);
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("no process for the board");
  const fs::path log = layout.Log() / "board.log";
  if (child == 0) BecomeInBackground(command, log);
  if (!AwaitBoot(layout, child, options)) {
    throw std::runtime_error("the board did not come up, see " + log.string());
  }
}

void BecomeCloud(const fs::path& directory) {
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  ::setenv("PYTHONPATH", (ToolsDirectory() / "cloud").c_str(), 1);
  Become({"/usr/bin/python3", "-B", "-m", "virtual_cloud", fs::absolute(directory)});
}

bool AwaitBoot(const Layout& layout, pid_t launcher, const BootOptions& options) {
  bool up = false;
  Await(kBootLimit, [&] {
    up = ControlClient(layout).Call({"status"}) &&
         (!options.start_broker || BrokerListens(layout)) &&
         (options.cloud.empty() || fs::exists(layout.Joined()));
    return up || HasEnded(launcher);
  });
  return up;
}

bool AwaitBroker(const Layout& layout, std::chrono::milliseconds limit) {
  return Await(limit, [&] { return BrokerListens(layout); });
}

bool Stop(const Layout& layout) {
  ControlClient client(layout);
  const Fd board(static_cast<int>(::syscall(SYS_pidfd_open, client.HostPid(), 0)));
  if (!client.Call({"stop"})) return false;
  pollfd ended{board.Get(), POLLIN, 0};
  return ::poll(&ended, 1, kStopLimitMs) == 1;
}

}  // namespace varnel::board
