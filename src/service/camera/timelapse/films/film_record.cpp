#include "service/camera/timelapse/films/film_record.h"

#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "utils/local_time.h"

namespace varnel::service {
namespace {

using nlohmann::json;

}  // namespace

json FilmRecord(const WorkDirectory& directory, const std::filesystem::path& video,
                const std::string& duration, int64_t made_s) {
  return {{"date_index", directory.Index()},
          {"gcode_name", directory.Settings().gcode_name},
          {"gcode_path", directory.Settings().gcode_path},
          {"timelapse_dir", directory.Path().string()},
          {"video_path", video.string()},
          {"thumbnail_path", directory.Thumbnail().string()},
          {"generate_date", utils::LocalDate(made_s).value_or("")},
          {"unix_timestamp_s", made_s},
          {"video_duration", duration}};
}

json FilmNotice(const json& record) {
  const std::string index = record["date_index"];
  return {{"state", "success"},
          {"date_index", index},
          {"gcode_name", record["gcode_name"]},
          {"video_url", kWebUrl + VideoLinkName(index)},
          {"thumbnail_path", kWebUrl + ThumbnailLinkName(index)},
          {"video_duration", record["video_duration"]}};
}

}  // namespace varnel::service
