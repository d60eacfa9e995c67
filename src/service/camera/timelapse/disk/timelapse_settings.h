#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>

namespace varnel::service {

/// What a client chooses for one time-lapse.
struct TimelapseSettings {
  std::string mode = "classic";  ///< part of the film's file name
  std::string gcode_name = "unknown";
  std::string gcode_path = "unknown";
  uint32_t frame_rate = 30;  ///< frames per second
};

/// 1 to 32 letters, digits, "_" and "-".
[[nodiscard]] bool IsTimelapseMode(const std::string& mode);

/// Takes an integer from 1 to 240; false for any other value.
[[nodiscard]] bool ReadFrameRate(const nlohmann::json& value, uint32_t& frame_rate);

/// The file "config.json" of an instance. What is missing or unusable in it keeps its default, with
/// a log line. Nothing when the file cannot be read at this moment.
[[nodiscard]] std::optional<TimelapseSettings> LoadTimelapseSettings(
    const std::filesystem::path& file);
[[nodiscard]] std::error_code SaveTimelapseSettings(const TimelapseSettings& settings,
                                                    const std::filesystem::path& file);

}  // namespace varnel::service
