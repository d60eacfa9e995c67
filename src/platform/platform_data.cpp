#include "platform/platform_data.h"

#include <filesystem>

#include "platform/command_output.h"
#include "utils/log_printf.h"
#include "utils/log_text.h"

namespace varnel::platform {
namespace {

using hal_adapter::HalStatus;
namespace fs = std::filesystem;

using DataCopy = std::shared_ptr<const fs::path>;

constexpr const char* kTag = "IMSYS";
constexpr size_t kPathLimit = 511;
/// An archive of any size may take its time, as long as it grows.
constexpr uint32_t kStillMs = 120'000;
constexpr uint64_t kProcessorMs = 3'600'000;
/// Of what tar says; its list of members is of no use.
constexpr size_t kOutputLimit = 512;

/// A program that was killed has not finished what it wrote.
bool WasKilled(int32_t exit_code) {
  return exit_code < 0 || exit_code > 128;
}

int32_t Run(utils::SafeExec& command, const std::string& target) {
  command.SetIdlePriority().SetWorkLimits(
      {.still_ms = kStillMs, .processor_ms = kProcessorMs, .progress = target});
  const CommandOutput output = run_command(command, kOutputLimit);
  if (output.exit_code != 0 && !output.problem.empty()) {
    PLOG_WARN(kTag, "%s", utils::LogText(output.problem, kOutputLimit).c_str());
  }
  return output.exit_code;
}

bool IsArchivable(const std::string& source) {
  std::error_code error;
  const fs::file_status status = fs::status(source, error);
  if (!fs::exists(status)) {
    PLOG_ERROR(kTag, "The source directory does not exist");
    return false;
  }
  if (!fs::is_directory(status)) {
    PLOG_ERROR(kTag, "The source path is not a directory");
    return false;
  }
  return true;
}

DataCopy CopyOf(const DataBoard& board, const std::string& source, const std::string& name) {
  return board.copy_source ? board.copy_source(source, name)
                           : std::make_shared<const fs::path>(source);
}

void Archive(const DataBoard& board, const DataArchive& archive, const std::string& out_dir) {
  const std::string target = out_dir + "/" + archive.name;
  if (target.size() > kPathLimit) {
    PLOG_ERROR(kTag, "The target output path too long");
    return;
  }
  const DataCopy copy = CopyOf(board, archive.source, archive.name);
  if (!IsArchivable(archive.source)) return;
  int32_t exit_code = -1;
  if (copy && utils::HasRoom(board.has_space, target)) {
    utils::SafeExec command(board.tar);
    command.AddArg("zhcvf").AddArg(target).AddArg("-C").AddArg(*copy).AddArg(".");
    exit_code = Run(command, target);
    std::error_code ignored;
    if (WasKilled(exit_code)) fs::remove(target, ignored);
  }
  if (exit_code != 0) PLOG_ERROR(kTag, "Collect platform data (%s) failed", archive.name.c_str());
}

void CopyFile(const DataBoard& board, const DataType& data, const std::string& out_dir) {
  std::error_code error;
  if (data.file.empty() || !fs::is_regular_file(data.file, error)) return;
  const std::string target = out_dir + "/" + data.file_name;
  const DataCopy copy = CopyOf(board, data.file, data.file_name);
  utils::SafeExec command(board.cp);
  command.AddArg("-f").AddArg(copy ? copy->string() : "").AddArg(target);
  if (!copy || Run(command, target) != 0) {
    PLOG_ERROR(kTag, "Collect platform data (%s) failed", data.file_name.c_str());
  }
}

}  // namespace

const std::vector<DataType>& board_data_types() {
  static const std::vector<DataType> types = {
      {"Collect diagnostic platform data",
       {{"/userdata/gcodes/calibration_data", "calibration_data.tar.gz"},
        {"/userdata/gcodes/shaper_calibrate", "shaper_calibrate.tar.gz"},
        {"/userdata/gcodes/frequency_data", "frequency_data.tar.gz"}}},
      {"Collect config platform data",
       {{"/home/ruxo/printer_data/config", "printer_data_config.tar.gz"},
        {"/home/ruxo/printer_data/mqtt", "printer_data_mqtt.tar.gz"},
        {"/home/ruxo/printer_data/klippy", "printer_data_klippy.tar.gz"}},
       "/home/ruxo/printer_data/.fluidd",
       ".fluidd"},
      {"Collect MPT platform data",
       {{"/home/ruxo/printer_data/backup", "mpt.tar.gz"},
        {"/userdata/factory", "userdata_factory.tar.gz"}}},
      {"Collect coredump platform data", {{"/userdata/.coredump", "coredump.tar.gz"}}},
      {"Collect statistics platform data (nothing)", {}},
      {"Collect debug platform data (nothing)", {}},
      {"Collect log platform data",
       {{"/var/log", "var_log.tar.gz"},
        {"/home/ruxo/printer_data/logs", "printer_data_logs.tar.gz"},
        {"/home/ruxo/printer_data/ota", "ota_logs.tar.gz"},
        {"/home/ruxo/printer_data/collection", "collection_logs.tar.gz"}}},
  };
  return types;
}

HalStatus collect_platform_data(const DataBoard& board, uint32_t type, const char* out_dir) {
  if (out_dir == nullptr) return HalStatus::kInvalidParameter;
  if (type >= board.types->size()) {
    PLOG_WARN(kTag, "Unsupported platform data type %d", static_cast<int>(type));
    return HalStatus::kNoMemory;
  }
  const DataType& data = (*board.types)[type];
  PLOG_INFO(kTag, "%s", data.announcement);
  for (const DataArchive& archive : data.archives) Archive(board, archive, out_dir);
  CopyFile(board, data, out_dir);
  return HalStatus::kSuccess;
}

}  // namespace varnel::platform
