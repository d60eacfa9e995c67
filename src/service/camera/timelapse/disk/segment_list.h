#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace varnel::service {

/// A list of video segments in ffmpeg's concat format: one line "file '<path>'" each. The paths are
/// our own and need no quoting.
[[nodiscard]] std::string SegmentLine(const std::filesystem::path& segment);

/// The segments of a list, in order, one by one; lines of another form go to `skipped`, if there is
/// one. None without the file; false when it cannot be read.
using OneSegment = std::function<void(std::string_view path)>;
using SkippedLine = std::function<void(const std::string& line)>;
[[nodiscard]] bool ForEachSegment(const std::filesystem::path& list, const OneSegment& segment,
                                  const SkippedLine& skipped = nullptr);
/// The same at once.
[[nodiscard]] std::optional<std::vector<std::filesystem::path>> ReadSegmentList(
    const std::filesystem::path& list, const SkippedLine& skipped = nullptr);

/// Adds a segment so that it survives a power failure. A line that an earlier one cut short is
/// removed first.
[[nodiscard]] std::error_code AppendSegment(const std::filesystem::path& list,
                                            const std::filesystem::path& segment);

/// Replaces the list.
[[nodiscard]] std::error_code WriteSegmentList(const std::filesystem::path& list,
                                               const std::vector<std::filesystem::path>& segments);

}  // namespace varnel::service
