#pragma once

/// Places of the board that more than one library knows. A place that one alone knows is the
/// default of that library's own settings.
namespace varnel::utils::board {

inline constexpr const char* kDetectionResults = "/userdata/.tmp_detect_result";

inline constexpr const char* kFfmpeg = "/usr/bin/ffmpeg";
inline constexpr const char* kTar = "/usr/bin/tar";

}  // namespace varnel::utils::board
