#include "service/system/collection/item_runner.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <system_error>

#include "service/system/collection/scrub/scrubbed_file.h"
#include "utils/last_error.h"
#include "utils/log.h"
#include "utils/owned.h"
#include "utils/safe_exec.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "COLLE";

utils::UniqueFd Create(const fs::path& file) {
  return utils::UniqueFd(
      ::open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

/// As somebody would have typed it.
std::string Typed(const CollectionItem& item) {
  std::string line;
  for (const std::string& word : item.command) line += word + ' ';
  return line + "> " + item.output;
}

std::string StatusOf(const utils::SafeExec::Result& run, bool flood, bool stopped) {
  if (flood) return "flood";
  if (stopped) return "stopped";
  return run.exit_code < 0 ? "time limit" : "exit " + std::to_string(run.exit_code);
}

uint64_t MillisecondsSince(std::chrono::steady_clock::time_point begin) {
  const auto passed = std::chrono::steady_clock::now() - begin;
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(passed).count());
}

}  // namespace

std::optional<std::string> ItemRunner::FindProgram(const std::string& name) const {
  const fs::path path = name;
  const auto& allowed = setup_.program_directories;
  if (path.is_absolute() &&
      std::find(allowed.begin(), allowed.end(), path.parent_path()) == allowed.end())
    return std::nullopt;
  for (const fs::path& directory : allowed) {
    const fs::path program = path.is_absolute() ? path : directory / path;
    if ((path.is_absolute() || path == path.filename()) && ::access(program.c_str(), X_OK) == 0)
      return program;
  }
  return std::nullopt;
}

ItemRecord ItemRunner::RunCommand(const CollectionItem& item) const {
  ItemRecord record{.item = item.output, .command = Typed(item)};
  const auto program = FindProgram(item.command.front());
  if (!program) {
    record.status = "missing";
    record.why_left_out = "there is no program " + item.command.front();
    VLOG_WARN(kTag, "{} does not exist.", item.command.front());
    return record;
  }
  const utils::UniqueFd file = Create(FileOf(item));
  if (!file) {
    record.why_left_out = utils::LastError().message();
    VLOG_ERROR(kTag, "Failed to open file for writing: {}", FileOf(item).string());
    return record;
  }
  const auto begin = std::chrono::steady_clock::now();
  RunInto(item, *program, file.Get(), record);
  record.milliseconds = MillisecondsSince(begin);
  return record;
}

void ItemRunner::RunInto(const CollectionItem& item, const std::string& program, int file,
                         ItemRecord& record) const {
  ScrubbedFile output(file, *setup_.held);
  size_t bytes = 0;
  utils::SafeExec command(program);
  for (size_t i = 1; i < item.command.size(); ++i) command.AddArg(item.command[i]);
  command.SetTimeout(setup_.limit_ms).SetOutputLimit(setup_.max_bytes).SetIdlePriority();
  command.SetOutputSink([&](std::string_view piece) {
    bytes += piece.size();
    (void)output.Feed(piece);
  });
  command.SetStop([&] { return bytes >= setup_.max_bytes || setup_.stopped(); });
  const auto run = command.TryExecute();
  const std::error_code error = output.Finish();
  record.masked = output.Masked();
  record.status = run ? StatusOf(*run, bytes >= setup_.max_bytes, setup_.stopped()) : "not started";
  if (!run) VLOG_ERROR(kTag, "Execute fatal error: {}", run.Why());
  if (run && !run->success) VLOG_WARN(kTag, "Execute error, code is {}", run->exit_code);
  if (error) record.why_left_out = error.message();
}

ItemRecord ItemRunner::WriteVariable(const CollectionItem& item) const {
  ItemRecord record{.item = item.output, .status = "done"};
  const utils::UniqueFd file = Create(FileOf(item));
  if (!file) {
    record.why_left_out = utils::LastError().message();
    VLOG_ERROR(kTag, "Failed to open file for writing: {}", FileOf(item).string());
    return record;
  }
  ScrubbedFile output(file.Get(), *setup_.held);
  (void)output.Feed(item.value + '\n');
  if (const std::error_code error = output.Finish()) {
    record.why_left_out = error.message();
    VLOG_ERROR(kTag, "Failed to write variable to file {}: {}", FileOf(item).string(),
               error.message());
  }
  record.masked = output.Masked();
  return record;
}

}  // namespace varnel::service
