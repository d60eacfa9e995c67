// What the host's /proc tells about the processes of a board.
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "virtual_board/client/board.h"
#include "virtual_board/common/files.h"
#include "virtual_board/launcher/control.h"

namespace varnel::board {

namespace fs = std::filesystem;

namespace {

fs::path Proc(pid_t pid) {
  return fs::path("/proc") / std::to_string(pid);
}

/// Values of one line of /proc/PID/status.
std::vector<long> StatusValues(const fs::path& process, const std::string& key) {
  std::ifstream in(process / "status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(key + ":", 0) != 0) continue;
    std::istringstream values(line.substr(key.size() + 1));
    return {std::istream_iterator<long>(values), {}};
  }
  return {};
}

long StatusValue(const fs::path& process, const std::string& key) {
  const auto values = StatusValues(process, key);
  return values.empty() ? 0 : values.front();
}

/// Fields of /proc/PID/stat after the name, "state" first.
std::vector<std::string> StatFields(const fs::path& process) {
  const std::string stat = ReadFile(process / "stat");
  std::istringstream in(stat.substr(std::min(stat.size(), stat.rfind(')') + 2)));
  return {std::istream_iterator<std::string>(in), {}};
}

std::chrono::milliseconds ProcessorTime(const fs::path& process) {
  constexpr size_t kUserTime = 11;
  const auto fields = StatFields(process);
  if (fields.size() <= kUserTime + 1) return {};
  const long ticks = std::stol(fields[kUserTime]) + std::stol(fields[kUserTime + 1]);
  return std::chrono::milliseconds(ticks * 1000 / ::sysconf(_SC_CLK_TCK));
}

/// Entries of a directory of /proc; it may vanish with its process at any time.
std::vector<fs::path> Entries(const fs::path& directory) {
  std::vector<fs::path> entries;
  std::error_code error;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
    entries.push_back(it->path());
  }
  return entries;
}

std::string ProcessSpace(const fs::path& process) {
  std::error_code error;
  return fs::read_symlink(process / "ns/pid", error);
}

std::string Parent(const fs::path& process) {
  const auto fields = StatFields(process);
  return fields.size() < 2 ? "" : fields[1];
}

/// A zombie has no namespaces any more; its parent tells where it belongs.
bool InSpace(const fs::path& process, const std::string& space) {
  const std::string own = ProcessSpace(process);
  return own.empty() ? ProcessSpace("/proc/" + Parent(process)) == space : own == space;
}

ProcessInfo Describe(const fs::path& process) {
  std::string name = ReadFile(process / "comm");
  name.resize(name.find_last_not_of('\n') + 1);
  const auto fields = StatFields(process);
  return {static_cast<pid_t>(std::stol(process.filename())), name,
          fields.empty() ? '?' : fields[0][0]};
}

bool IsProcess(const fs::path& path) {
  return path.filename().string().find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

ProcessCounters CountersOf(pid_t pid) {
  const fs::path process = Proc(pid);
  ProcessCounters counters;
  counters.threads = StatusValue(process, "Threads");
  counters.descriptors = static_cast<long>(Entries(process / "fd").size());
  counters.resident_kb = StatusValue(process, "VmRSS");
  counters.processor_time = ProcessorTime(process);
  for (const fs::path& thread : Entries(process / "task")) {
    counters.voluntary_switches += StatusValue(thread, "voluntary_ctxt_switches");
  }
  return counters;
}

std::vector<ProcessInfo> Board::Processes() const {
  const std::string space = ProcessSpace(Proc(HostPid()));
  std::vector<ProcessInfo> found;
  for (const fs::path& path : Entries("/proc")) {
    if (IsProcess(path) && InSpace(path, space)) found.push_back(Describe(path));
  }
  return found;
}

pid_t Board::DaemonPid() const {
  const auto answer = ControlClient(layout_).Call({"status"});
  const auto daemon = answer ? answer->at("services").value("daemon", nlohmann::json::object())
                             : nlohmann::json::object();
  const long inside = daemon.value("pid", 0L);
  if (inside == 0) return 0;
  for (const ProcessInfo& process : Processes()) {
    const auto pids = StatusValues(Proc(process.pid), "NSpid");
    if (!pids.empty() && pids.back() == inside) return process.pid;
  }
  return 0;
}

ProcessCounters Board::DaemonCounters() const {
  return CountersOf(DaemonPid());
}

}  // namespace varnel::board
