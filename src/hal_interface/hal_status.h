#pragma once

#include <cstdint>

namespace varnel::hal_adapter {

/// What every platform operation returns. The value set is open: a child's exit status may be
/// passed up as it is, see FromExitCode().
enum class [[nodiscard]] HalStatus : int32_t{
    kSuccess = 0,
    kFailure = -1,
    kInvalidParameter = -2,
    /// The platform layer also answers with this when an operation is not supported or failed.
    kNoMemory = -3,
    kNoResource = -4,
    kTimeout = -5,
    kBusy = -6,
    kUnsupported = -7,
    kInvalidState = -8,
    kHardwareError = -9,
    kInvalidCommandSet = -10,
    kOpenFileFailed = -80,
    kCloseFileFailed = -81,
    kReadFileFailed = -82,
    kWriteFileFailed = -83,
    kMapFileFailed = -84,
    kUnmapFileFailed = -85,
    kFileNotFound = -86,
    kFileFormatError = -87,
};

/// The status of an operation that a program did: 0 is success, all else is passed up as it is.
constexpr HalStatus FromExitCode(int32_t exit_code) {
  return static_cast<HalStatus>(exit_code);
}

struct HalStatusText {
  HalStatus status;
  const char* text;
};

inline constexpr HalStatusText kHalStatusTexts[] = {
    {HalStatus::kSuccess, "success"},
    {HalStatus::kFailure, "general failure"},
    {HalStatus::kInvalidParameter, "invalid parameter"},
    {HalStatus::kNoMemory, "no memory"},
    {HalStatus::kNoResource, "no resource except memory"},
    {HalStatus::kTimeout, "timeout"},
    {HalStatus::kBusy, "resource is busy"},
    {HalStatus::kUnsupported, "unsupported operation"},
    {HalStatus::kInvalidState, "state is invalid for current operation"},
    {HalStatus::kHardwareError, "hardware errors"},
    {HalStatus::kInvalidCommandSet, "invalid command set"},
    {HalStatus::kOpenFileFailed, "open file failed"},
    {HalStatus::kCloseFileFailed, "close file failed"},
    {HalStatus::kReadFileFailed, "read file failed"},
    {HalStatus::kWriteFileFailed, "write file failed"},
    {HalStatus::kMapFileFailed, "map file failed"},
    {HalStatus::kUnmapFileFailed, "unmap file failed"},
    {HalStatus::kFileNotFound, "file not found"},
    {HalStatus::kFileFormatError, "file format error"},
};

/// The text of a status; "unknown error" for one that is not in the table.
constexpr const char* hal_error_string(HalStatus status) {
  for (const HalStatusText& entry : kHalStatusTexts) {
    if (entry.status == status) return entry.text;
  }
  return "unknown error";
}

}  // namespace varnel::hal_adapter
