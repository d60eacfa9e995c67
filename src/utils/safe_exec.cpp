#include "utils/safe_exec.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <utility>

#include "utils/child_process.h"
#include "utils/child_start.h"

namespace varnel::utils {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;
using Deadline = std::optional<SteadyTime>;

constexpr int32_t kSignalBase = 128;
/// How often the child is asked for where the kernel cannot tell its end (before Linux 5.3).
constexpr int kFallbackPollMs = 5;
/// How often somebody is asked whether it is to be stopped.
constexpr int kStopPollMs = 200;

/// Takes at most so many bytes, of one output or of both.
class Kept {
 public:
  Kept(size_t limit, const SafeExec::OutputSink& sink) : left_(limit), sink_(sink) {}

  bool Cut() const { return cut_; }
  void Take(std::string_view bytes, std::string& text) {
    const size_t kept = std::min(bytes.size(), left_);
    cut_ = cut_ || kept < bytes.size();
    left_ -= kept;
    if (sink_) {
      sink_(bytes.substr(0, kept));
    } else {
      text.append(bytes.substr(0, kept));
    }
  }

 private:
  size_t left_;
  const SafeExec::OutputSink& sink_;
  bool cut_ = false;
};

/// One output of the child. What is not kept is read all the same, or the child would block.
class CapturedStream {
 public:
  CapturedStream(UniqueFd pipe, Kept& kept) : pipe_(std::move(pipe)), kept_(kept) {}

  /// -1 once the child's side is closed; poll() passes over it.
  int Fd() const { return pipe_.Get(); }
  std::string TakeText() { return std::move(text_); }

  /// One read of what is there; returns the bytes read. A single one, or an endless writer would
  /// keep the caller from looking at its time limit.
  size_t ReadSome(size_t max_bytes) {
    std::array<char, 16384> buffer;
    const ssize_t got = ::read(pipe_.Get(), buffer.data(), std::min(max_bytes, buffer.size()));
    if (got > 0) {
      kept_.Take({buffer.data(), static_cast<size_t>(got)}, text_);
      return static_cast<size_t>(got);
    }
    if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
      pipe_.Reset();
    }
    return 0;
  }

  /// What is in the pipe now. Not until end-of-file: a grandchild may keep the pipe open and go on
  /// writing.
  void ReadPending() {
    int pending = 0;
    if (!pipe_ || ::ioctl(pipe_.Get(), FIONREAD, &pending) != 0) {
      return;
    }
    auto left = static_cast<size_t>(std::max(pending, 0));
    while (left > 0 && pipe_) {
      left -= ReadSome(left);
    }
  }

 private:
  UniqueFd pipe_;
  Kept& kept_;
  std::string text_;
};

bool Passed(const Deadline& deadline) {
  return deadline && std::chrono::steady_clock::now() >= *deadline;
}

/// For poll(): rounded up, so that it does not spin through the last millisecond.
int MillisecondsLeft(const Deadline& deadline) {
  if (!deadline) {
    return -1;
  }
  using std::chrono::milliseconds;
  const auto left =
      std::chrono::ceil<milliseconds>(*deadline - std::chrono::steady_clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX));
}

/// What ends a child that does not end by itself.
struct Patience {
  Deadline deadline;
  std::optional<Standstill> work;
  const std::function<bool()>& stop;

  bool Ended() { return Passed(deadline) || (work && work->Passed()) || (stop && stop()); }
};

/// -1: for ever.
int MillisecondsToNextLook(const Patience& patience) {
  const int left = MillisecondsLeft(patience.deadline);
  if (!patience.work) {
    return left;
  }
  const auto pause = static_cast<int>(patience.work->Pause().count());
  return left < 0 ? pause : std::min(left, pause);
}

int WaitTime(const ChildProcess& child, const Patience& patience) {
  int left = MillisecondsToNextLook(patience);
  if (patience.stop && (left < 0 || left > kStopPollMs)) {
    left = kStopPollMs;
  }
  if (child.EndedFd() >= 0) {
    return left;
  }
  return left < 0 ? kFallbackPollMs : std::min(left, kFallbackPollMs);
}

/// Captures until the child ends (true) or patience does (false).
bool CaptureUntilEnd(const ChildProcess& child, CapturedStream& out, CapturedStream& err,
                     Patience& patience) {
  for (;;) {
    std::array<pollfd, 3> fds = {pollfd{child.EndedFd(), POLLIN, 0}, pollfd{out.Fd(), POLLIN, 0},
                                 pollfd{err.Fd(), POLLIN, 0}};
    const int ready = ::poll(fds.data(), fds.size(), WaitTime(child, patience));
    if (ready > 0 && fds[1].revents != 0) {
      out.ReadSome(SIZE_MAX);
    }
    if (ready > 0 && fds[2].revents != 0) {
      err.ReadSome(SIZE_MAX);
    }
    const bool ended = child.EndedFd() >= 0 && ready >= 0 ? fds[0].revents != 0 : child.HasEnded();
    if (ended) {
      return true;
    }
    if (patience.Ended()) {
      return false;
    }
  }
}

/// Null-terminated pointers into the strings, as exec wants them.
std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& text : strings) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

void SetStatus(SafeExec::Result& result, const std::optional<int>& status) {
  if (!status) {
    return;
  }
  if (WIFEXITED(*status)) {
    result.exit_code = WEXITSTATUS(*status);
    result.success = result.exit_code == 0;
  } else if (WIFSIGNALED(*status)) {
    result.exit_code = kSignalBase + WTERMSIG(*status);
  }
}

}  // namespace

SafeExec::SafeExec(std::string program_path) : program_path_(std::move(program_path)) {
  if (program_path_.empty()) {
    throw SafeExecException("Program path cannot be empty");
  }
}

SafeExec& SafeExec::AddArg(std::string argument) {
  arguments_.push_back(std::move(argument));
  return *this;
}

SafeExec& SafeExec::AddEnv(const std::string& key, const std::string& value) {
  environment_.push_back(key + "=" + value);
  return *this;
}

SafeExec& SafeExec::SetWorkingDir(std::string path) {
  working_dir_ = std::move(path);
  return *this;
}

SafeExec& SafeExec::SetWorkingDir(int directory) {
  working_dir_fd_ = directory;
  return *this;
}

SafeExec& SafeExec::SetTimeout(uint32_t milliseconds) {
  timeout_ms_ = milliseconds;
  return *this;
}

SafeExec& SafeExec::SetWorkLimits(WorkLimits limits) {
  work_limits_ = std::move(limits);
  return *this;
}

SafeExec& SafeExec::OutliveUs() {
  outlives_us_ = true;
  return *this;
}

SafeExec& SafeExec::SetIdlePriority() {
  idle_priority_ = true;
  return *this;
}

SafeExec& SafeExec::SetOutputLimit(size_t bytes) {
  output_limit_ = bytes;
  return *this;
}

SafeExec& SafeExec::SetOutputSink(OutputSink sink) {
  output_sink_ = std::move(sink);
  return *this;
}

SafeExec& SafeExec::SetStop(std::function<bool()> stop) {
  stop_ = std::move(stop);
  return *this;
}

SafeExec& SafeExec::SetOutputFile(std::string path) {
  output_file_ = std::move(path);
  return *this;
}

SafeExec::Result SafeExec::Execute() {
  Outputs outputs = OpenOutputs();
  pid_t pid = -1;
  if (Start(outputs, pid) != 0) {
    throw SafeExecException("Failed to fork process");
  }
  // Ours are closed first: the end of the child's side must show, and the descriptors may be the
  // last ones.
  outputs.child_out.Reset();
  outputs.child_err.Reset();
  return Supervise(pid, std::move(outputs));
}

SafeExec::Outputs SafeExec::OpenOutputs() const {
  Outputs outputs;
  if (output_file_) {
    outputs.child_out = OpenOutputFile(output_file_->c_str());
    outputs.child_err = OpenOutputFile(output_file_->c_str());
    if (!outputs.child_out || !outputs.child_err) {
      throw SafeExecException("Failed to open output file");
    }
    return outputs;
  }
  std::optional<Pipe> out = MakePipe();
  std::optional<Pipe> err = out ? MakePipe() : std::nullopt;
  if (!out || !err) {
    throw SafeExecException("Failed to create pipe");
  }
  return {std::move(out->write_end), std::move(err->write_end), std::move(out->read_end),
          std::move(err->read_end)};
}

int SafeExec::Start(const Outputs& outputs, int& pid) {
  std::vector<std::string> words = {program_path_};
  words.insert(words.end(), arguments_.begin(), arguments_.end());
  const std::vector<char*> arguments = Pointers(words);
  const std::vector<char*> own_environment = Pointers(environment_);
  ChildSetup setup;
  setup.program = program_path_.c_str();
  setup.arguments = arguments.data();
  setup.environment = environment_.empty() ? environ : own_environment.data();
  setup.working_dir = working_dir_ ? working_dir_->c_str() : nullptr;
  setup.working_dir_fd = working_dir_fd_;
  setup.standard_output = outputs.child_out.Get();
  setup.standard_error = outputs.child_err.Get();
  setup.outlives_us = outlives_us_;
  setup.idle_priority = idle_priority_;
  return SpawnChild(setup, pid);
}

SafeExec::Result SafeExec::Supervise(int pid, Outputs outputs) const {
  Patience patience{.deadline = {}, .work = {}, .stop = stop_};
  if (timeout_ms_) {
    patience.deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(*timeout_ms_);
  }
  if (work_limits_) {
    patience.work.emplace(pid, *work_limits_);
  }
  ChildProcess child(pid);
  Kept kept_out(output_limit_, output_sink_);
  Kept kept_err(output_limit_, output_sink_);
  CapturedStream out(std::move(outputs.out), kept_out);
  // With a sink both share one limit.
  CapturedStream err(std::move(outputs.err), output_sink_ ? kept_out : kept_err);
  const bool ended = CaptureUntilEnd(child, out, err, patience);
  if (!ended) {
    child.KillGroup();
  }
  const std::optional<int> status = child.Reap();
  out.ReadPending();
  err.ReadPending();
  Result result;
  SetStatus(result, ended ? status : std::nullopt);
  result.output_cut = kept_out.Cut() || kept_err.Cut();
  result.standard_output = out.TakeText();
  result.standard_error = err.TakeText();
  return result;
}

utils::Result<SafeExec::Result, std::string> SafeExec::TryExecute() {
  try {
    return Execute();
  } catch (const SafeExecException& error) {
    return std::string(error.what());
  }
}

std::future<SafeExec::Result> SafeExec::ExecuteAsync() {
  return std::async([this] { return Execute(); });
}

std::string SafeExec::ToString() const {
  std::string line = program_path_;
  for (const std::string& argument : arguments_) {
    line += " \"";
    for (const char c : argument) {
      if (c == '"') {
        line += '\\';
      }
      line += c;
    }
    line += '"';
  }
  return line;
}

}  // namespace varnel::utils
