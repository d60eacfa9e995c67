#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace varnel::service {

enum class TimelapseState : uint32_t { kInitial, kReady, kActivated, kGenerating, kFinished };

/// "INITIAL", "READY" and so on; null for a number that is no state.
[[nodiscard]] const char* TimelapseStateName(TimelapseState state);
[[nodiscard]] std::optional<TimelapseState> TimelapseStateOf(const std::string& name);

/// Whether a time-lapse in the state `from` may become `to`: each state has one that follows.
[[nodiscard]] bool MayBecome(TimelapseState from, TimelapseState to);

/// The state record of a work directory; nothing is logged. Nothing when there is none or it is
/// unusable.
[[nodiscard]] std::optional<TimelapseState> TimelapseStateIn(
    const std::filesystem::path& directory);

/// The same, for whoever needs it now; what is wrong with it is logged.
enum class [[nodiscard]] StateRecord{kFound, kMissing, kUnreadable};
[[nodiscard]] StateRecord ReadTimelapseState(const std::filesystem::path& directory,
                                             TimelapseState& state);

/// Writes the state record. False is logged.
[[nodiscard]] bool WriteTimelapseState(const std::filesystem::path& directory,
                                       TimelapseState state);

/// Lays the record of a stop ready, so that the stop itself needs no room. False is logged.
[[nodiscard]] bool PrepareStop(const std::filesystem::path& directory);
/// Puts the prepared record in force; without one it is written. False is logged.
[[nodiscard]] bool RecordStop(const std::filesystem::path& directory);

}  // namespace varnel::service
