#include "service/camera/timelapse/disk/film_listing.h"

#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "service/camera/timelapse/disk/film_description.h"
#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kTag = "TLP";
constexpr size_t kMaxThumbnailBytes = size_t{16} << 20U;

json Number(const json& record, const char* key) {
  const auto value = record.find(key);
  return value != record.end() && value->is_number() ? *value : json(0);
}

json VideoSize(const json& record) {
  std::error_code error;
  const uintmax_t size = fs::file_size(RecordText(record, "video_path"), error);
  if (error) VLOG_WARN(kTag, "Get video file size error: {}", error.message());
  return error ? 0 : size;
}

json Item(const json& record, bool thumbnail_inline) {
  const std::string index = RecordText(record, "date_index");
  json item = {{"date_index", index},
               {"gcode_name", RecordText(record, "gcode_name")},
               {"gcode_path", RecordText(record, "gcode_path")},
               {"generate_date", RecordText(record, "generate_date")},
               {"unix_timestamp_s", Number(record, "unix_timestamp_s")},
               {"video_duration", RecordText(record, "video_duration")},
               {"video_url", kWebUrl + VideoLinkName(index)},
               {"video_size", VideoSize(record)}};
  if (thumbnail_inline) {
    const fs::path text = fs::path(RecordText(record, "timelapse_dir")) / "thumbnail_base64.txt";
    item["thumbnail_base64"] =
        "data:image/jpeg;base64," + utils::ReadSmallFile(text, kMaxThumbnailBytes).value_or("");
  } else {
    item["thumbnail_path"] = kWebUrl + ThumbnailLinkName(index);
  }
  return item;
}

}  // namespace

json ListFilms(const json& description, const TimelapseQuery& query) {
  const std::vector<const json*> records = ShownRecords(description);
  const size_t rows = query.all ? records.size() : query.page_rows;
  // Divided and not multiplied: a page number may be any.
  const bool beyond = rows == 0 || query.page_index - 1 > records.size() / rows;
  const size_t first = beyond ? records.size() : (query.page_index - 1) * rows;
  json items = json::array();
  for (size_t i = first; i < records.size() && i - first < rows; ++i)
    items.push_back(Item(*records[i], query.thumbnail_inline));
  const size_t count = items.size();
  return {{"total_count", records.size()},
          {"page_index", query.page_index},
          {"page_rows", rows},
          {"count", count},
          {"instances", std::move(items)}};
}

}  // namespace varnel::service
