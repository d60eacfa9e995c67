#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "utils/owned.h"
#include "utils/result.h"
#include "utils/standstill.h"

namespace varnel::utils {

/// A command that could not be started at all.
class SafeExecException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Runs an external program without a shell. The child gets standard input from /dev/null, its own
/// process group, default signal dispositions and no descriptor of ours but its two outputs.
/// One thread at a time per object; the object must outlive a future of ExecuteAsync().
class SafeExec {
 public:
  struct Result {
    /// 0 to 255: exit status; 128 + signal; -1: time limit, or could not be waited for; 127: not
    /// executable.
    int32_t exit_code = -1;
    std::string standard_output;
    std::string standard_error;
    bool success = false;     ///< exited by itself with status 0
    bool output_cut = false;  ///< an output passed the limit; what came after it is lost
  };

  using OutputSink = std::function<void(std::string_view bytes)>;

  /// Throws SafeExecException on an empty path.
  explicit SafeExec(std::string program_path);

  SafeExec& AddArg(std::string argument);
  /// The first entry replaces the whole environment of the child, further ones add to it.
  SafeExec& AddEnv(const std::string& key, const std::string& value);
  SafeExec& SetWorkingDir(std::string path);
  /// An open directory, whatever its name leads to by then. It must stay open over the run.
  SafeExec& SetWorkingDir(int directory);
  /// When it runs out the child's process group is killed.
  SafeExec& SetTimeout(uint32_t milliseconds);
  /// The same when the child does no work any more; it ends as with a time limit.
  SafeExec& SetWorkLimits(WorkLimits limits);
  /// Both outputs of the child are appended to this file instead of being captured, so that the
  /// child can go on when this process ends. Made with mode 0600 if missing; a link is refused.
  SafeExec& SetOutputFile(std::string path);
  /// The child goes on when this process ends, in whatever way; all others end with it.
  SafeExec& OutliveUs();
  /// The child runs at the lowest priority of the processor and the disk, from the moment its
  /// program has begun; up to there we wait for it.
  SafeExec& SetIdlePriority();
  /// Bytes kept of each output; the rest is read and dropped.
  SafeExec& SetOutputLimit(size_t bytes);
  /// Takes both outputs as they come, instead of their being kept, up to the limit of both
  /// together. Called by the thread that runs the command; must not throw.
  SafeExec& SetOutputSink(OutputSink sink);
  /// Asked a few times a second; true ends the child as its time limit does.
  SafeExec& SetStop(std::function<bool()> stop);

  /// Runs the command and waits for its end. Throws SafeExecException when no process could be
  /// started.
  [[nodiscard]] Result Execute();
  /// The same for a caller that goes on without the program: the text of why none could be started.
  utils::Result<Result, std::string> TryExecute();
  [[nodiscard]] std::future<Result> ExecuteAsync();
  /// The command line for log lines; never fed to a shell.
  [[nodiscard]] std::string ToString() const;

 private:
  /// The ends that the child gets and those that we read; the latter are none with a file.
  struct Outputs {
    UniqueFd child_out;
    UniqueFd child_err;
    UniqueFd out;
    UniqueFd err;
  };

  Outputs OpenOutputs() const;
  int Start(const Outputs& outputs, int& pid);
  Result Supervise(int pid, Outputs outputs) const;

  static constexpr size_t kDefaultOutputLimit = size_t{16} << 20U;

  std::string program_path_;
  std::vector<std::string> arguments_;
  std::vector<std::string> environment_;
  std::optional<std::string> working_dir_;
  int working_dir_fd_ = -1;
  std::optional<std::string> output_file_;
  std::optional<uint32_t> timeout_ms_;
  std::optional<WorkLimits> work_limits_;
  size_t output_limit_ = kDefaultOutputLimit;
  OutputSink output_sink_;
  std::function<bool()> stop_;
  bool outlives_us_ = false;
  bool idle_priority_ = false;
};

}  // namespace varnel::utils
