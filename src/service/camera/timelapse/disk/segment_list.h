#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace varnel::service {

/// A list of video segments in ffmpeg's concat format: one line "file '<path>'" each. The paths are
/// our own and need no quoting.
[[nodiscard]] std::string SegmentLine(const std::filesystem::path& segment);

/// The segments of a list, in order; lines of another form are logged and skipped. Empty without
/// the file.
[[nodiscard]] std::vector<std::filesystem::path> ReadSegmentList(const std::filesystem::path& list);

/// Adds a segment so that it survives a power failure. A line that an earlier one cut short is
/// removed first.
[[nodiscard]] std::error_code AppendSegment(const std::filesystem::path& list,
                                            const std::filesystem::path& segment);

/// Replaces the list.
[[nodiscard]] std::error_code WriteSegmentList(const std::filesystem::path& list,
                                               const std::vector<std::filesystem::path>& segments);

}  // namespace varnel::service
