#include "service/camera/timelapse/disk/json_file.h"

#include <new>
#include <optional>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr int kMaxDepth = 64;

/// Our files are flat: deeper ones are not ours, and destroying a very deep value recurses.
json ParseBounded(const std::string& text) {
  return json::parse(text, [](int depth, json::parse_event_t, json&) {
    if (depth > kMaxDepth) throw std::out_of_range("nested too deeply");
    return true;
  });
}

/// False for what is no file of ours, whatever is tried.
bool CouldBeRead(const std::filesystem::path& file) {
  std::error_code error;
  const bool regular = std::filesystem::is_regular_file(file, error);
  if (error) return true;
  return regular && std::filesystem::file_size(file, error) <= kMaxJsonFileBytes;
}

}  // namespace

JsonFile ReadJsonFile(const char* tag, const std::filesystem::path& file) {
  std::error_code error;
  if (std::filesystem::symlink_status(file, error).type() == std::filesystem::file_type::not_found)
    return {};
  JsonFile content{JsonFile::State::kIllegal, {}};
  const std::optional<std::string> text = utils::ReadSmallFile(file, kMaxJsonFileBytes);
  if (!text) {
    if (CouldBeRead(file)) content.state = JsonFile::State::kUnreadable;
    VLOG_ERROR(tag, "JSON exception {}", utils::LogText(file.string() + " cannot be read"));
    return content;
  }
  try {
    content.value = ParseBounded(*text);
    content.state = JsonFile::State::kRead;
  } catch (const json::parse_error& problem) {
    VLOG_ERROR(tag, "JSON Parse error at byte {}", problem.byte);
  } catch (const std::bad_alloc&) {
    content.state = JsonFile::State::kUnreadable;
    VLOG_ERROR(tag, "JSON exception {}", "out of memory");
  } catch (const std::exception& problem) {
    VLOG_ERROR(tag, "JSON exception {}", utils::LogText(problem.what()));
  }
  return content;
}

std::string ToText(const json& value) {
  return value.dump(2, ' ', false, json::error_handler_t::replace) + '\n';
}

}  // namespace varnel::service
