#pragma once

#include <cstdint>

namespace varnel::hal_adapter {

/// What every platform operation returns. The value set is open: a child's exit status may be
/// passed up as it is.
using HalStatus = int32_t;

inline constexpr HalStatus kHalSuccess = 0;
inline constexpr HalStatus kHalFailure = -1;
inline constexpr HalStatus kHalInvalidParameter = -2;
/// The platform layer also answers with this when an operation is not supported or failed.
inline constexpr HalStatus kHalNoMemory = -3;
inline constexpr HalStatus kHalNoResource = -4;
inline constexpr HalStatus kHalTimeout = -5;
inline constexpr HalStatus kHalBusy = -6;
inline constexpr HalStatus kHalUnsupported = -7;
inline constexpr HalStatus kHalInvalidState = -8;
inline constexpr HalStatus kHalHardwareError = -9;
inline constexpr HalStatus kHalInvalidCommandSet = -10;
inline constexpr HalStatus kHalOpenFileFailed = -80;
inline constexpr HalStatus kHalCloseFileFailed = -81;
inline constexpr HalStatus kHalReadFileFailed = -82;
inline constexpr HalStatus kHalWriteFileFailed = -83;
inline constexpr HalStatus kHalMapFileFailed = -84;
inline constexpr HalStatus kHalUnmapFileFailed = -85;
inline constexpr HalStatus kHalFileNotFound = -86;
inline constexpr HalStatus kHalFileFormatError = -87;

struct HalStatusText {
  HalStatus status;
  const char* text;
};

inline constexpr HalStatusText kHalStatusTexts[] = {
    {kHalSuccess, "success"},
    {kHalFailure, "general failure"},
    {kHalInvalidParameter, "invalid parameter"},
    {kHalNoMemory, "no memory"},
    {kHalNoResource, "no resource except memory"},
    {kHalTimeout, "timeout"},
    {kHalBusy, "resource is busy"},
    {kHalUnsupported, "unsupported operation"},
    {kHalInvalidState, "state is invalid for current operation"},
    {kHalHardwareError, "hardware errors"},
    {kHalInvalidCommandSet, "invalid command set"},
    {kHalOpenFileFailed, "open file failed"},
    {kHalCloseFileFailed, "close file failed"},
    {kHalReadFileFailed, "read file failed"},
    {kHalWriteFileFailed, "write file failed"},
    {kHalMapFileFailed, "map file failed"},
    {kHalUnmapFileFailed, "unmap file failed"},
    {kHalFileNotFound, "file not found"},
    {kHalFileFormatError, "file format error"},
};

/// The text of a status; "unknown error" for one that is not in the table.
constexpr const char* hal_error_string(HalStatus status) {
  for (const HalStatusText& entry : kHalStatusTexts) {
    if (entry.status == status) return entry.text;
  }
  return "unknown error";
}

}  // namespace varnel::hal_adapter
