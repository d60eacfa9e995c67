#include "service/camera/debug_photo.h"

#include <filesystem>

#include "utils/atomic_file.h"
#include "utils/local_time.h"

namespace varnel::service {
namespace {

std::optional<int64_t> ReadInteger(const nlohmann::json& value) {
  if (!value.is_number_integer()) return std::nullopt;
  const bool too_large = value.is_number_unsigned() && value.get<uint64_t>() > uint64_t{INT64_MAX};
  if (too_large) return std::nullopt;
  return value.get<int64_t>();
}

}  // namespace

std::optional<DebugPhotoRequest> ParseDebugPhoto(const nlohmann::json& params) {
  DebugPhotoRequest request;
  if (const auto timestamp = params.find("timestamp"); timestamp != params.end()) {
    const std::optional<int64_t> seconds = ReadInteger(*timestamp);
    if (!seconds) return std::nullopt;
    request.timestamp = *seconds;
  }
  if (const auto filepath = params.find("filepath"); filepath != params.end()) {
    if (!filepath->is_string()) return std::nullopt;
    request.filepath = filepath->get<std::string>();
  }
  return request;
}

std::optional<std::string> DebugPhotoPath(const DebugPhotoRequest& request) {
  if (request.timestamp == 0) return request.filepath;
  const std::optional<std::string> digits = utils::LocalTimeDigits(request.timestamp);
  if (!digits) return std::nullopt;
  std::string path = request.filepath;
  const std::string name = std::filesystem::path(path).filename().string();
  // The time would make a file of what is none; the path stays what it is, to be refused.
  if (name.empty() || name == "." || name == "..") return path;
  const size_t ending = utils::FileEnding(path).size();
  return path.insert(path.size() - ending, "_" + *digits);
}

}  // namespace varnel::service
