#include "platform/upgrade.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "platform/command_output.h"
#include "utils/log.h"
#include "utils/log_printf.h"
#include "utils/log_text.h"
#include "utils/owned.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;

constexpr const char* kTag = "IMSYS";
constexpr uint32_t kMainTarget = 0;
constexpr size_t kOutputLimit = 40'960;
constexpr const char* kOutputName = "/.upgrade-";

/// Holds the script's output; gone at the end of the upgrade.
class OutputFile {
 public:
  explicit OutputFile(const std::string& directory) : path_(directory + kOutputName + "XXXXXX") {
    file_.Reset(::mkostemp(path_.data(), O_CLOEXEC));
  }
  ~OutputFile() {
    if (file_) ::unlink(path_.c_str());
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  explicit operator bool() const { return static_cast<bool>(file_); }
  const std::string& Path() const { return path_; }
  std::string Read() const {
    std::string text(kOutputLimit, '\0');
    const ssize_t size = ::pread(file_.Get(), text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
  }

 private:
  std::string path_;
  utils::UniqueFd file_;
};

void LogLines(const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty()) VLOG_INFO(kTag, "Upgrade: {}", utils::LogText(line, kOutputLimit));
  }
}

HalStatus RunScript(const UpgradeBoard& board, const char* package) {
  const OutputFile output(board.output_dir);
  utils::SafeExec command(board.script);
  command.AddArg("upgrade").AddArg("all").AddArg(package);
  // A pipe would kill the script at its next output once the daemon is gone; a file does not.
  command.SetOutputFile(output ? output.Path() : "/dev/null");
  command.OutliveUs();
  const HalStatus status = run_command(command, 0).status;
  if (output) LogLines(output.Read());
  return status;
}

}  // namespace

std::string upgrade_output_files(const UpgradeBoard& board) {
  return board.output_dir + kOutputName + '*';
}

HalStatus upgrade_firmware(const UpgradeBoard& board, uint32_t target, const char* package) {
  if (target != kMainTarget) {
    PLOG_ERROR(kTag, "Do not support upgrading the target %d", static_cast<int>(target));
    return hal_adapter::kHalNoMemory;
  }
  if (package == nullptr) return hal_adapter::kHalInvalidParameter;
  PLOG_INFO(kTag, "Prepare for upgrading target %d", static_cast<int>(target));
  const HalStatus status = RunScript(board, package);
  if (status != hal_adapter::kHalSuccess) PLOG_ERROR(kTag, "Upgrade failed");
  return status;
}

}  // namespace varnel::platform
