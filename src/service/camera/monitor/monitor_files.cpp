#include "service/camera/monitor/monitor_files.h"

#include <system_error>
#include <utility>

#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MON";

void Remove(const std::filesystem::path& file) {
  std::error_code error;
  std::filesystem::remove(file, error);
  if (error) VLOG_ERROR(kTag, "Remove {} failed, reason: {}", file.string(), error.message());
}

}  // namespace

bool MonitorFiles::IsPublished() const {
  std::error_code error;
  return std::filesystem::read_symlink(paths_.web_link, error) == paths_.snapshot;
}

void MonitorFiles::Publish() {
  if (IsPublished()) return;
  std::error_code error = utils::MakeDirectories(paths_.web_link.parent_path());
  if (!error) error = utils::ReplaceSymlink(paths_.snapshot, paths_.web_link);
  if (error && !told_)
    VLOG_ERROR(kTag, "Create symlink to monitor failed, reason: {}", error.message());
  told_ = static_cast<bool>(error);
}

void MonitorFiles::Withdraw() const {
  if (IsPublished()) Remove(paths_.web_link);
}

void MonitorFiles::Clear() const {
  Withdraw();
  Remove(paths_.snapshot);
  Remove(paths_.encrypted);
}

}  // namespace varnel::service
