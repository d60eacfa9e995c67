#include "service/camera/json_file.h"

#include <optional>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr size_t kMaxBytes = size_t{64} << 20U;
constexpr int kMaxDepth = 64;

/// Our files are flat: deeper ones are not ours, and destroying a very deep value recurses.
json ParseBounded(const std::string& text) {
  return json::parse(text, [](int depth, json::parse_event_t, json&) {
    if (depth > kMaxDepth) throw std::out_of_range("nested too deeply");
    return true;
  });
}

}  // namespace

JsonFile ReadJsonFile(const char* tag, const std::filesystem::path& file) {
  std::error_code error;
  if (std::filesystem::symlink_status(file, error).type() == std::filesystem::file_type::not_found)
    return {};
  JsonFile content{JsonFile::State::kIllegal, {}};
  const std::optional<std::string> text = utils::ReadSmallFile(file, kMaxBytes);
  if (!text) return content;
  try {
    content.value = ParseBounded(*text);
    content.state = JsonFile::State::kRead;
  } catch (const json::parse_error& problem) {
    VLOG_ERROR(tag, "JSON Parse error at byte {}", problem.byte);
  } catch (const std::exception& problem) {
    VLOG_ERROR(tag, "JSON exception {}", utils::LogText(problem.what()));
  }
  return content;
}

std::string ToText(const json& value) {
  return value.dump(2, ' ', false, json::error_handler_t::replace) + '\n';
}

}  // namespace varnel::service
