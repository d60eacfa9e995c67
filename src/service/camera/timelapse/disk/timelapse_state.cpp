#include "service/camera/timelapse/disk/timelapse_state.h"

#include <algorithm>
#include <array>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr const char* kStateFile = "state";
constexpr const char* kStopFile = "state.stop";
constexpr size_t kMaxStateBytes = 64;

struct StateRow {
  TimelapseState state;
  const char* name;
  TimelapseState next;
};
constexpr std::array kStates{
    StateRow{TimelapseState::kInitial, "INITIAL", TimelapseState::kReady},
    StateRow{TimelapseState::kReady, "READY", TimelapseState::kActivated},
    StateRow{TimelapseState::kActivated, "ACTIVATED", TimelapseState::kGenerating},
    StateRow{TimelapseState::kGenerating, "GENERATING", TimelapseState::kFinished},
    StateRow{TimelapseState::kFinished, "FINISHED", TimelapseState::kFinished},
};

const StateRow* RowOf(TimelapseState state) {
  const auto number = static_cast<size_t>(state);
  return number < kStates.size() ? &kStates[number] : nullptr;
}

std::optional<std::string> RecordedName(const fs::path& directory) {
  std::optional<std::string> text = utils::ReadSmallFile(directory / kStateFile, kMaxStateBytes);
  while (text && text->ends_with('\n')) text->pop_back();
  return text;
}

bool ReportUnwritten(const fs::path& file, const std::error_code& error) {
  if (!error) return true;
  if (error == std::errc::no_such_file_or_directory) {
    VLOG_ERROR(kTag, "Record state: current directory {} not exist.", file.parent_path().string());
  } else if (error == std::errc::permission_denied || error == std::errc::read_only_file_system) {
    VLOG_ERROR(kTag, "Record state: open file '{}' failed.", file.string());
  } else if (error == std::errc::no_space_on_device || error == std::errc::io_error) {
    VLOG_ERROR(kTag, "Record state: write file '{}' failed.", file.string());
  } else {
    VLOG_ERROR(kTag, "Record state: filesystem error: {}", error.message());
  }
  return false;
}

bool Write(const fs::path& file, TimelapseState state) {
  const char* name = TimelapseStateName(state);
  if (name == nullptr) {
    VLOG_ERROR(kTag, "Record state: state is invalid.");
    return false;
  }
  return ReportUnwritten(file, utils::WriteFileAtomically(file, std::string(name) + '\n'));
}

}  // namespace

const char* TimelapseStateName(TimelapseState state) {
  const StateRow* row = RowOf(state);
  return row != nullptr ? row->name : nullptr;
}

std::optional<TimelapseState> TimelapseStateOf(const std::string& name) {
  const auto row = std::find_if(kStates.begin(), kStates.end(),
                                [&](const StateRow& one) { return name == one.name; });
  if (row == kStates.end()) return std::nullopt;
  return row->state;
}

bool MayBecome(TimelapseState from, TimelapseState to) {
  const StateRow* row = RowOf(from);
  return row != nullptr && row->next == to;
}

std::optional<TimelapseState> TimelapseStateIn(const fs::path& directory) {
  const auto name = RecordedName(directory);
  return name ? TimelapseStateOf(*name) : std::nullopt;
}

StateRecord ReadTimelapseState(const fs::path& directory, TimelapseState& state) {
  const std::string index = directory.filename().string();
  std::error_code error;
  if (fs::symlink_status(directory / kStateFile, error).type() == fs::file_type::not_found)
    return StateRecord::kMissing;
  const std::optional<std::string> name = RecordedName(directory);
  if (!name) {
    VLOG_ERROR(kTag, "Time-lapse {}: open state file failed.", index);
    return StateRecord::kUnreadable;
  }
  const std::optional<TimelapseState> found = TimelapseStateOf(*name);
  if (!found) {
    VLOG_ERROR(kTag, "Set state '{}' failed, do nothing.", utils::LogText(*name));
    VLOG_ERROR(kTag, "Time-lapse {}: read state file error.", index);
    return StateRecord::kUnreadable;
  }
  state = *found;
  return StateRecord::kFound;
}

bool WriteTimelapseState(const fs::path& directory, TimelapseState state) {
  return Write(directory / kStateFile, state);
}

bool PrepareStop(const fs::path& directory) {
  return Write(directory / kStopFile, TimelapseState::kGenerating);
}

bool RecordStop(const fs::path& directory) {
  std::error_code error;
  fs::rename(directory / kStopFile, directory / kStateFile, error);
  if (error == std::errc::no_such_file_or_directory)
    return WriteTimelapseState(directory, TimelapseState::kGenerating);
  if (error) return ReportUnwritten(directory / kStateFile, error);
  // It is in force, even if a power failure may still take it back.
  (void)ReportUnwritten(directory / kStateFile, utils::SyncDirectory(directory));
  return true;
}

}  // namespace varnel::service
