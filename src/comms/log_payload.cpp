#include "comms/log_payload.h"

#include <algorithm>

#include "utils/log_text.h"
#include "utils/secret_names.h"

namespace varnel::comms {
namespace {

constexpr const char* kSpace = " \t\r\n";

/// The string that the text begins with, its quotes included; all of it when it does not end.
std::string_view TakeString(std::string_view& text) {
  size_t end = 1;
  while (end < text.size() && text[end] != '"') end += text[end] == '\\' ? 2 : 1;
  const std::string_view taken = text.substr(0, std::min(end + 1, text.size()));
  text.remove_prefix(taken.size());
  return taken;
}

/// Whatever the text begins with, up to the end of that object, array, string or word.
std::string_view TakeValue(std::string_view& text) {
  const std::string_view all = text;
  int depth = 0;
  while (!text.empty()) {
    const char c = text.front();
    const bool closes = c == '}' || c == ']';
    if (depth == 0 && (closes || c == ',')) break;
    if (c == '"') {
      (void)TakeString(text);
      if (depth == 0) break;
      continue;
    }
    if (c == '{' || c == '[') ++depth;
    text.remove_prefix(1);
    if (closes && --depth == 0) break;
  }
  return all.substr(0, all.size() - text.size());
}

/// The colon after a member's name with the space around it; empty when no name was before it.
std::string_view TakeColon(std::string_view& text) {
  const size_t colon = std::min(text.find_first_not_of(kSpace), text.size());
  if (colon == text.size() || text[colon] != ':') return {};
  const size_t end = std::min(text.find_first_not_of(kSpace, colon + 1), text.size());
  const std::string_view taken = text.substr(0, end);
  text.remove_prefix(end);
  return taken;
}

/// Of what TakeString() took.
std::string_view Unquoted(std::string_view string) {
  string.remove_prefix(1);
  if (string.ends_with('"')) string.remove_suffix(1);
  return string;
}

std::string_view Trimmed(std::string_view text) {
  const size_t last = text.find_last_not_of(kSpace);
  return last == text.npos ? std::string_view{} : text.substr(0, last + 1);
}

void AppendMasked(std::string& line, std::string_view name, std::string_view& text) {
  const std::string_view value = Trimmed(TakeValue(text));
  if (utils::IsErrorCode(Unquoted(name), value)) {
    line += value;
  } else {
    line.append("\"").append(utils::MaskSecret(value == "\"\"" ? "" : value)).append("\"");
  }
}

std::string WithoutQuery(std::string_view string) {
  if (string.find("://") == string.npos) return std::string(string);
  const bool closed = string.size() > 1 && string.ends_with('"');
  return utils::MaskUrl(string.substr(0, string.size() - (closed ? 1 : 0))) + (closed ? "\"" : "");
}

/// By scanning and not by parsing: what is cut short, too large or broken holds secrets too, and a
/// log line is not worth the parsing of a megabyte.
std::string WithoutSecrets(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    if (text.front() != '"') {
      const size_t plain = std::min(text.find('"'), text.size());
      line += text.substr(0, plain);
      text.remove_prefix(plain);
      continue;
    }
    const std::string_view string = TakeString(text);
    const std::string_view colon = TakeColon(text);
    line += colon.empty() ? WithoutQuery(string) : std::string(string);
    line += colon;
    if (!colon.empty() && utils::NamesSecret(string)) AppendMasked(line, string, text);
  }
  return line;
}

}  // namespace

std::string LogPayload(std::string_view payload, size_t max_bytes) {
  // Masking shortens: somewhat more than the line holds is looked at, cut where it may.
  return utils::LogText(WithoutSecrets(payload.substr(0, 4 * max_bytes)), max_bytes);
}

std::string LogJson(const Json& value, size_t max_bytes) {
  return LogPayload(Serialize(value), max_bytes);
}

}  // namespace varnel::comms
