#include "service/system/upgrade/firmware_description.h"

#include <algorithm>
#include <cctype>

#include "service/cloud/http/reply_json.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "UPGM";
constexpr size_t kMaxName = 128;
constexpr size_t kMd5Digits = 32;

/// Names that begin with a dot are those of temporary files.
bool IsFileName(const std::string& name) {
  return !name.empty() && name.front() != '.' && name.size() <= kMaxName &&
         std::all_of(name.begin(), name.end(),
                     [](char c) { return c >= ' ' && c <= '~' && c != '/'; });
}

bool IsMd5(const std::string& digits) {
  return digits.size() == kMd5Digits && std::all_of(digits.begin(), digits.end(), [](char c) {
           return std::isxdigit(static_cast<unsigned char>(c)) != 0;
         });
}

bool TextIn(const json& document, const char* name, std::string& value) {
  const auto found = document.find(name);
  if (found == document.end() || !found->is_string()) return false;
  value = found->get<std::string>();
  return true;
}

bool SizeIn(const json& document, uint64_t& size) {
  const auto found = document.find("size");
  if (found == document.end() || !found->is_number_unsigned()) return false;
  size = found->get<uint64_t>();
  return size >= 1 && size <= FirmwareDescription::kMaxSize;
}

std::optional<FirmwareDescription> DescriptionIn(json document) {
  FirmwareDescription description;
  const bool whole = document.is_object() && TextIn(document, "version", description.version) &&
                     TextIn(document, "fullversion", description.fullversion) &&
                     IsFileName(description.fullversion) && SizeIn(document, description.size) &&
                     TextIn(document, "md5", description.md5) && IsMd5(description.md5) &&
                     document.contains("release_notes");
  if (!whole) {
    VLOG_ERROR(kTag,
               "Firmware description: can not get version, fullversion, size, md5 or release_notes "
               "information.");
    return std::nullopt;
  }
  std::transform(description.md5.begin(), description.md5.end(), description.md5.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  description.release_notes = std::move(document["release_notes"]);
  (void)TextIn(document, "signature", description.signature);
  return description;
}

/// Says where the text ends to be JSON.
void TellWhy(std::string_view text) {
  try {
    // Nothing is built.
    [[maybe_unused]] const json none =
        json::parse(text, [](int, json::parse_event_t, json&) { return false; });
    VLOG_ERROR(kTag, "Firmware description: json exception {}",
               "it is nested too deeply or too long");
  } catch (const json::parse_error& error) {
    VLOG_ERROR(kTag, "Firmware description: parse error at byte {}", error.byte);
  }
}

}  // namespace

std::optional<FirmwareDescription> ReadFirmwareDescription(std::string_view text) {
  try {
    if (auto document = ParseReply(text)) return DescriptionIn(std::move(*document));
    TellWhy(text);
  } catch (const std::exception& error) {
    VLOG_ERROR(kTag, "Firmware description: json exception {}", utils::LogText(error.what()));
  }
  return std::nullopt;
}

}  // namespace varnel::service
