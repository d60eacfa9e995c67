#include "service/camera/timelapse_requests.h"

#include <cmath>

#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "CAMSRV";
constexpr double kLargestCount = 1e9;
/// As long as a path may be; every listing carries all names.
constexpr size_t kMaxNameBytes = 4096;

/// An absent name keeps its default, with a warning.
bool ReadName(const json& params, const char* key, std::string& name) {
  const auto value = params.find(key);
  if (value == params.end()) {
    VLOG_WARN(kTag, "start timelapse: the {} parameter was not set, use default {}", key, name);
    return true;
  }
  if (!value->is_string() || value->get_ref<const std::string&>().size() > kMaxNameBytes)
    return false;
  name = value->get<std::string>();
  return true;
}

/// A whole number from 1 on; absent keeps the default.
bool ReadCount(const json& params, const char* key, size_t& count) {
  const auto value = params.find(key);
  if (value == params.end()) return true;
  if (!value->is_number()) return false;
  const double number = value->get<double>();
  if (!(number >= 1) || number > kLargestCount || number != std::floor(number)) return false;
  count = static_cast<size_t>(number);
  return true;
}

}  // namespace

std::optional<TimelapseSettings> ParseTimelapseStart(const json& params) {
  TimelapseSettings settings;
  const json& mode = params.at("mode");
  if (!mode.is_string() || !IsTimelapseMode(mode.get_ref<const std::string&>()) ||
      !ReadFrameRate(params.at("frame_rate"), settings.frame_rate) ||
      !ReadName(params, "gcode_name", settings.gcode_name) ||
      !ReadName(params, "gcode_path", settings.gcode_path)) {
    return std::nullopt;
  }
  settings.mode = mode.get<std::string>();
  return settings;
}

std::optional<TimelapseQuery> ParseTimelapseQuery(const json& params) {
  TimelapseQuery query;
  if (params.is_null() || (params.is_object() && params.empty())) return query;
  if (!params.is_object()) return std::nullopt;
  query.all = false;
  if (!ReadCount(params, "page_index", query.page_index) ||
      !ReadCount(params, "page_rows", query.page_rows)) {
    return std::nullopt;
  }
  if (const auto direct = params.find("thumbnail_direct"); direct != params.end()) {
    if (!direct->is_boolean()) return std::nullopt;
    query.thumbnail_inline = direct->get<bool>();
  }
  return query;
}

}  // namespace varnel::service
