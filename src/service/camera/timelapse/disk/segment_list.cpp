#include "service/camera/timelapse/disk/segment_list.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "utils/atomic_file.h"
#include "utils/last_error.h"
#include "utils/owned.h"
#include "utils/write_all.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kStart = "file '";
constexpr size_t kMaxBytes = size_t{64} << 20U;
/// No line of ours is longer.
constexpr off_t kMaxLine = 4096 + 16;

std::optional<std::string_view> PathIn(std::string_view line) {
  if (!line.starts_with(kStart) || !line.ends_with('\'') || line.size() <= kStart.size() + 1)
    return std::nullopt;
  line.remove_prefix(kStart.size());
  line.remove_suffix(1);
  return line;
}

/// Where the last whole line ends.
std::error_code FindEndOfLines(int fd, off_t size, off_t& end) {
  const off_t start = size > kMaxLine ? size - kMaxLine : 0;
  std::string tail(static_cast<size_t>(size - start), '\0');
  const ssize_t got = ::pread(fd, tail.data(), tail.size(), start);
  if (got < 0) return utils::LastError();
  tail.resize(static_cast<size_t>(got));
  const size_t newline = tail.rfind('\n');
  // Never take away what might be lines.
  if (newline == std::string::npos && start > 0)
    return std::make_error_code(std::errc::illegal_byte_sequence);
  end = newline == std::string::npos ? 0 : start + static_cast<off_t>(newline) + 1;
  return {};
}

std::error_code AppendLine(int fd, const std::string& line) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) return utils::LastError();
  off_t end = 0;
  if (const std::error_code error = FindEndOfLines(fd, info.st_size, end)) return error;
  if (end != info.st_size && ::ftruncate(fd, end) != 0) return utils::LastError();
  std::error_code error = utils::WriteAll(fd, line);
  if (!error && ::fsync(fd) != 0) error = utils::LastError();
  // A line that did not fit would be cut short: better none.
  if (error && ::ftruncate(fd, end) != 0) return error;
  return error;
}

}  // namespace

std::string SegmentLine(const fs::path& segment) {
  return std::string(kStart) + segment.string() + "'\n";
}

bool ForEachSegment(const fs::path& list, const OneSegment& segment, const SkippedLine& skipped) {
  std::error_code error;
  if (fs::symlink_status(list, error).type() == fs::file_type::not_found) return true;
  const std::optional<std::string> text = utils::ReadSmallFile(list, kMaxBytes);
  if (!text) return false;
  std::string_view rest = *text;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (const auto path = PathIn(line)) {
      segment(*path);
    } else if (skipped) {
      skipped(std::string(line));
    }
  }
  return true;
}

std::optional<std::vector<fs::path>> ReadSegmentList(const fs::path& list,
                                                     const SkippedLine& skipped) {
  std::vector<fs::path> segments;
  const auto add = [&](std::string_view path) { segments.emplace_back(path); };
  if (!ForEachSegment(list, add, skipped)) return std::nullopt;
  return segments;
}

std::error_code AppendSegment(const fs::path& list, const fs::path& segment) {
  std::error_code ignored;
  const bool is_new = !fs::exists(list, ignored);
  const utils::UniqueFd file(::open(
      list.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644));
  if (!file) return utils::LastError();
  if (const std::error_code error = AppendLine(file.Get(), SegmentLine(segment))) return error;
  return is_new ? utils::SyncDirectory(list.parent_path()) : std::error_code();
}

std::error_code WriteSegmentList(const fs::path& list, const std::vector<fs::path>& segments) {
  std::string text;
  for (const fs::path& segment : segments) text += SegmentLine(segment);
  return utils::WriteFileAtomically(list, text);
}

}  // namespace varnel::service
