#include "service/camera/timelapse/encoder/generation_progress.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = "TLP";
constexpr size_t kLines = 12;
constexpr int64_t kJoinShare = 80;
constexpr size_t kMaxBytes = size_t{64} << 20U;

/// The text's last `kLines` lines.
std::string_view LastLines(std::string_view text) {
  size_t start = text.size();
  if (text.ends_with('\n')) --start;
  for (size_t lines = 0; lines < kLines && start != 0 && start != text.npos; ++lines) {
    start = text.rfind('\n', start - 1);
    if (start == text.npos) return text;
  }
  return text.substr(start == 0 ? 0 : start + 1);
}

}  // namespace

int LastProgressFrame(const std::string& text) {
  constexpr std::string_view kKey = "frame=";
  const std::string_view lines = LastLines(text);
  const size_t key = lines.rfind(kKey);
  if (key == lines.npos) return -1;
  std::string_view value = lines.substr(key + kKey.size());
  value = value.substr(0, value.find_first_of("=\n"));
  value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
  int frame = -1;
  const auto parsed = std::from_chars(value.data(), value.data() + value.size(), frame);
  return parsed.ec == std::errc{} ? frame : -1;
}

int ProgressPercent(int frame, size_t total_frames) {
  if (total_frames == 0) return 0;
  const int64_t percent = int64_t{frame} * kJoinShare / static_cast<int64_t>(total_frames);
  return static_cast<int>(std::clamp<int64_t>(percent, 0, kJoinShare));
}

GenerationProgress::GenerationProgress(fs::path file, Report report, utils::Clock& clock)
    : report_(std::move(report)),
      file_(std::move(file)),
      task_("film-progress", kTag, clock,
            [this](const utils::PausingThread::Pause& pause) { Run(pause); }) {}

void GenerationProgress::Follow(fs::path file, size_t total_frames) {
  const utils::MutexLock lock(mutex_);
  file_ = std::move(file);
  total_frames_ = total_frames;
}

void GenerationProgress::Run(const utils::PausingThread::Pause& pause) {
  VLOG_INFO(kTag, "Generate progress task enter.");
  try {
    while (pause(kPeriod)) Look();
  } catch (const fs::filesystem_error& error) {
    VLOG_ERROR(kTag, "Generate progress task filesystem error: {}", utils::LogText(error.what()));
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Generate progress task error: {}", utils::LogText(error.what()));
  }
  VLOG_INFO(kTag, "Generate progress task exit.");
}

void GenerationProgress::Look() {
  fs::path file;
  size_t total_frames = 0;
  {
    const utils::MutexLock lock(mutex_);
    file = file_;
    total_frames = total_frames_;
  }
  const std::optional<std::string> text = utils::ReadSmallFile(file, kMaxBytes);
  if (!text) {
    VLOG_INFO(kTag, "Progress file {} is not exists, continue.", file.string());
    return;
  }
  highest_ = std::max(highest_, ProgressPercent(LastProgressFrame(*text), total_frames));
  report_(highest_);
}

}  // namespace varnel::service
