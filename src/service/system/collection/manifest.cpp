#include "service/system/collection/manifest.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>

#include "utils/atomic_file.h"
#include "utils/file_digest.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

std::string Line(const ordered_json& value) {
  return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

ordered_json LeftOutJson(const std::vector<LeftOut>& left_out) {
  ordered_json list = ordered_json::array();
  for (const LeftOut& one : left_out) list.push_back({{"path", one.path}, {"why", one.why}});
  return list;
}

/// The two members that a shell looks for come first.
ordered_json Describe(const ItemRecord& record, const fs::path& content) {
  ordered_json line = {{"item", record.item}};
  std::error_code error;
  if (fs::is_regular_file(content / record.item, error)) {
    const utils::FileDigest digest = utils::DigestOf(content / record.item);
    line["sha256"] = digest.sha256;
    line["bytes"] = digest.bytes;
  }
  if (!record.command.empty()) line["command"] = record.command;
  if (!record.status.empty()) line["status"] = record.status;
  line["ms"] = record.milliseconds;
  line["masked"] = record.masked;
  if (!record.why_left_out.empty()) line["why_left_out"] = record.why_left_out;
  if (!record.left_out.empty()) line["left_out"] = LeftOutJson(record.left_out);
  return line;
}

/// Relative to the content.
std::set<std::string> FilesIn(const fs::path& content) {
  std::set<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(content))
    if (entry.is_regular_file()) files.insert(entry.path().lexically_relative(content));
  return files;
}

}  // namespace

void Manifest::WriteInto(const fs::path& content) const {
  std::set<std::string> unknown = FilesIn(content);
  std::string text = "{\"version\": 1,\n\"items\": [\n";
  auto add = [&, first = true](const ItemRecord& record) mutable {
    if (!first) text += ",\n";
    first = false;
    text += Line(Describe(record, content));
  };
  for (const ItemRecord& record : records_) {
    unknown.erase(record.item);
    add(record);
  }
  for (const std::string& file : unknown) add({.item = file});
  text += "\n]}\n";
  const std::error_code error =
      utils::WriteFileAtomically(content / kName, text, 0600, utils::Durability::kCrash);
  if (error) throw std::system_error(error, kName);
}

}  // namespace varnel::service
