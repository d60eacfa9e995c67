#include "service/camera/timelapse/disk/film_links.h"

#include <system_error>
#include <utility>

#include "service/camera/timelapse/disk/film_description.h"
#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "TLP";

}  // namespace

void MakeFilmLinks(const TimelapsePaths& paths, const json& record, bool replace) {
  const std::string index = RecordText(record, "date_index");
  const std::pair<std::string, std::string> links[] = {
      {VideoLinkName(index), RecordText(record, "video_path")},
      {ThumbnailLinkName(index), RecordText(record, "thumbnail_path")}};
  for (const auto& [name, target] : links) {
    const fs::path link = paths.web / name;
    std::error_code ignored;
    const bool there = fs::symlink_status(link, ignored).type() == fs::file_type::symlink;
    // The description file can be changed by others: nothing else of the board is served.
    const bool ours = fs::path(target).parent_path() == paths.root / index;
    if (!ours || (there && !replace) || !fs::exists(target, ignored)) continue;
    std::error_code error = utils::MakeDirectories(paths.web);
    if (!error) error = utils::ReplaceSymlink(target, link);
    if (error)
      VLOG_ERROR(kTag, "Create symlink {} failed, reason: {}", link.string(), error.message());
  }
}

void RemoveFilmLinks(const TimelapsePaths& paths, const std::string& index) {
  std::error_code error;
  for (const std::string& name : {VideoLinkName(index), ThumbnailLinkName(index)}) {
    fs::remove(paths.web / name, error);
    if (error) {
      VLOG_ERROR(kTag, "Delete symlink {} failed, reason: {}", (paths.web / name).string(),
                 error.message());
    }
  }
  // They may lie on another file system than what tells that they are to go.
  if (fs::exists(paths.web, error)) error = utils::SyncDirectory(paths.web);
}

}  // namespace varnel::service
