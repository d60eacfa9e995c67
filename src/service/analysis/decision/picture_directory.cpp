#include "service/analysis/decision/picture_directory.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

#include "service/analysis/picture/analysis_log.h"
#include "utils/last_error.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

constexpr const char* kTag = kAnalysisTag;
constexpr std::string_view kPrefix = "printer_detect";
constexpr std::string_view kEnding = ".jpg";
/// What a writer leaves behind when the power fails.
constexpr std::string_view kTemporaryPrefix = ".varnel-";
/// More cannot be ours, and however many follow, their numbers must fit.
constexpr size_t kMaxDigits = 12;

std::optional<uint64_t> NumberOf(std::string_view name) {
  if (!name.starts_with(kPrefix) || !name.ends_with(kEnding)) return std::nullopt;
  name.remove_prefix(kPrefix.size());
  const size_t digits = std::min(name.find_first_not_of("0123456789"), name.size());
  if (digits == 0 || digits > kMaxDigits || name[digits] != '.') return std::nullopt;
  uint64_t number = 0;
  std::from_chars(name.data(), name.data() + digits, number);
  return number;
}

bool IsSameState(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

std::string PictureName(uint64_t number) {
  return std::string(kPrefix) + std::to_string(number);
}

size_t PictureDirectory::Count() {
  Refresh();
  return pictures_.size();
}

uint64_t PictureDirectory::HighestNumber() {
  Refresh();
  return pictures_.empty() ? 0 : pictures_.back().number;
}

std::string PictureDirectory::Add(const std::string& name, size_t limit, const Writer& write) {
  if (path_.empty()) {
    VLOG_WARN(kTag, "saving image path is empty");
    return {};
  }
  Refresh();
  if (limit == 0 || !MakeRoom(limit)) return {};
  std::string path = (path_ / name).string();
  if (!write(path)) {
    VLOG_ERROR(kTag, "save {} failed", path);
    return {};
  }
  VLOG_INFO(kTag, "save {}", path);
  pictures_.push_back({NumberOf(name).value_or(0), name});
  seen_ = Stamp();
  return path;
}

struct stat PictureDirectory::Stamp() const {
  struct stat now {};
  if (::stat(path_.c_str(), &now) != 0) return {};
  return now;
}

void PictureDirectory::Refresh() {
  if (path_.empty()) return;
  const struct stat now = Stamp();
  if (now.st_ino != 0 && IsSameState(now, seen_)) return;
  std::error_code error;
  fs::create_directories(path_, error);  // somebody may have removed it
  List();
  seen_ = Stamp();
}

void PictureDirectory::List() {
  pictures_.clear();
  std::error_code error;
  for (fs::directory_iterator entry(path_, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    std::error_code unknown;
    if (!fs::is_regular_file(entry->symlink_status(unknown))) continue;
    if (name.starts_with(kTemporaryPrefix)) fs::remove(entry->path(), unknown);
    if (const auto number = NumberOf(name)) pictures_.push_back({*number, name});
  }
  std::sort(pictures_.begin(), pictures_.end(),
            [](const Picture& a, const Picture& b) { return a.number < b.number; });
}

bool PictureDirectory::MakeRoom(size_t limit) {
  while (pictures_.size() >= limit) {
    const fs::path oldest = path_ / pictures_.front().name;
    if (::unlink(oldest.c_str()) != 0 && errno != ENOENT) {
      VLOG_ERROR(kTag, "{} cannot be removed, no picture is added: {}", oldest.string(),
                 utils::LastError().message());
      return false;
    }
    pictures_.pop_front();
  }
  return true;
}

}  // namespace varnel::service
