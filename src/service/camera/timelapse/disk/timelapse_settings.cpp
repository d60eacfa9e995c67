#include "service/camera/timelapse/disk/timelapse_settings.h"

#include <algorithm>
#include <optional>

#include "service/camera/timelapse/disk/json_file.h"
#include "utils/atomic_file.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "TLP";
constexpr size_t kMaxModeLength = 32;
constexpr uint32_t kMaxFrameRate = 240;

bool IsModeCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-';
}

/// False when there is a value that is no text.
bool ReadText(const json& object, const char* key, std::string& text) {
  const auto value = object.find(key);
  if (value == object.end()) return true;
  if (!value->is_string()) return false;
  text = value->get<std::string>();
  return true;
}

/// Nothing when the content is illegal.
std::optional<TimelapseSettings> FromJson(const json& object) {
  TimelapseSettings settings;
  if (!object.is_object() || !ReadText(object, "mode", settings.mode) ||
      !ReadText(object, "gcode_name", settings.gcode_name) ||
      !ReadText(object, "gcode_path", settings.gcode_path) || !IsTimelapseMode(settings.mode)) {
    return std::nullopt;
  }
  const auto rate = object.find("frame_rate");
  if (rate != object.end() && !ReadFrameRate(*rate, settings.frame_rate)) return std::nullopt;
  return settings;
}

}  // namespace

bool IsTimelapseMode(const std::string& mode) {
  return !mode.empty() && mode.size() <= kMaxModeLength &&
         std::all_of(mode.begin(), mode.end(), IsModeCharacter);
}

bool ReadFrameRate(const json& value, uint32_t& frame_rate) {
  if (!value.is_number_integer() || value < 1 || value > kMaxFrameRate) return false;
  frame_rate = value.get<uint32_t>();
  return true;
}

std::optional<TimelapseSettings> LoadTimelapseSettings(const std::filesystem::path& file) {
  const JsonFile content = ReadJsonFile(kTag, file);
  if (content.state == JsonFile::State::kMissing) {
    VLOG_WARN(kTag, "The config file is not exists, use default.");
    return TimelapseSettings();
  }
  if (content.state == JsonFile::State::kUnreadable) return std::nullopt;
  if (content.state == JsonFile::State::kRead) {
    if (auto settings = FromJson(content.value)) return *settings;
  }
  VLOG_WARN(kTag, "The content of the config file is illegal, use default.");
  return TimelapseSettings();
}

std::error_code SaveTimelapseSettings(const TimelapseSettings& settings,
                                      const std::filesystem::path& file) {
  const json object = {{"mode", settings.mode},
                       {"gcode_name", settings.gcode_name},
                       {"gcode_path", settings.gcode_path},
                       {"frame_rate", settings.frame_rate}};
  return utils::WriteFileAtomically(file, ToText(object));
}

}  // namespace varnel::service
