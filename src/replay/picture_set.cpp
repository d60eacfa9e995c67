#include "replay/picture_set.h"

#include <strings.h>
#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "utils/directory_entries.h"
#include "utils/file_digest.h"

namespace varnel::replay {

namespace {

namespace fs = std::filesystem;

bool EndsLikePicture(const std::string& name) {
  const std::string ending = fs::path(name).extension().string();
  return ::strcasecmp(ending.c_str(), ".jpg") == 0 || ::strcasecmp(ending.c_str(), ".jpeg") == 0;
}

/// Null for a picture.
const char* ReasonToSkip(const fs::directory_entry& entry, bool beside_prints) {
  std::error_code error;
  if (entry.is_directory(error)) return "is a folder";
  if (!EndsLikePicture(entry.path().filename().string())) return "no .jpg, .jpeg";
  if (!entry.is_regular_file(error)) return "is no file, or cannot be read";
  return beside_prints ? "is in no print's folder" : nullptr;
}

struct Picture {
  std::string name;
  uint64_t bytes = 0;
};

/// Goes through a folder and, when there are prints, those below it.
class Lister {
 public:
  explicit Lister(fs::path folder) : folder_(std::move(folder)) {}

  std::error_code List(const std::string& below, bool prints) {
    std::error_code error;
    for (const fs::directory_entry& entry : utils::DirectoryEntries(folder_ / below, error)) {
      const std::string name = (fs::path(below) / entry.path().filename()).string();
      std::error_code ignored;
      if (prints && entry.is_directory(ignored)) {
        error = List(name, false);
      } else if (const char* reason = ReasonToSkip(entry, prints); reason != nullptr) {
        skipped_.push_back({name, reason});
      } else {
        pictures_.push_back({name, entry.file_size(error)});
      }
      if (error) break;
    }
    return error;
  }

  PictureList Take() {
    const auto by_name = [](const auto& a, const auto& b) { return a.name < b.name; };
    std::sort(pictures_.begin(), pictures_.end(), by_name);
    std::sort(skipped_.begin(), skipped_.end(), by_name);
    PictureList list;
    utils::Sha256 sum;
    for (const Picture& picture : pictures_) {
      sum.Add(std::to_string(picture.bytes) + " " + picture.name + "\n");
      list.bytes += picture.bytes;
      list.pictures.push_back(picture.name);
    }
    list.sha256 = sum.Hex();
    list.skipped = std::move(skipped_);
    return list;
  }

 private:
  const fs::path folder_;
  std::vector<Picture> pictures_;
  std::vector<SkippedFile> skipped_;
};

std::string_view FolderOf(std::string_view picture) {
  const size_t slash = picture.rfind('/');
  return picture.substr(0, slash == std::string_view::npos ? 0 : slash);
}

using nlohmann::json;

/// Null when there is no such text.
const std::string* TextOf(const json& line, const char* key) {
  const auto found = line.find(key);
  return found == line.end() ? nullptr : found->get_ptr<const std::string*>();
}

std::optional<Box> BoxOf(const json& line) {
  const auto found = line.find("box");
  if (found == line.end() || !found->is_array() || found->size() != 4) return std::nullopt;
  if (!std::all_of(found->begin(), found->end(), [](const json& edge) { return edge.is_number(); }))
    return std::nullopt;
  const auto edges = found->get<std::array<double, 4>>();
  const Box box{edges[0], edges[1], edges[2], edges[3]};
  if (!(box.left < box.right && box.top < box.bottom)) return std::nullopt;
  return box;
}

/// What is wrong with the line; empty when it was added.
std::string AddLine(const std::string& text, Labels& labels) {
  const json line = json::parse(text, nullptr, false);
  if (!line.is_object()) return "this is no JSON object";
  const std::string* picture = TextOf(line, "picture");
  if (picture == nullptr || picture->empty()) return "\"picture\" must be the name of a file";
  const std::string* label = TextOf(line, "label");
  if (label == nullptr || label->empty()) return "\"label\" must be a text";
  const std::optional<Box> box = BoxOf(line);
  if (!box) return "\"box\" must be [left, top, right, bottom] with left < right and top < bottom";
  labels[*picture].push_back({*label, *box});
  return {};
}

}  // namespace

PictureList ListPictures(const fs::path& folder, bool prints, std::error_code& error) {
  Lister lister(folder);
  error = lister.List("", prints);
  if (error) return {};
  return lister.Take();
}

std::vector<Turn> TurnsOf(const std::vector<std::string>& pictures, bool independent) {
  const auto apart = [&](size_t before, size_t after) {
    return independent || FolderOf(pictures[before]) != FolderOf(pictures[after]);
  };
  std::vector<Turn> turns;
  for (size_t i = 0; i < pictures.size(); ++i) {
    const bool first = i == 0 || apart(i - 1, i);
    const bool last = i + 1 == pictures.size() || apart(i, i + 1);
    const char* status = last ? "last" : "";
    turns.push_back({pictures[i], first ? "first" : status});
  }
  return turns;
}

std::vector<Turn> TurnsOf(const Shard& shard, const std::vector<Turn>& turns) {
  if (shard.count == 0) return turns;
  std::vector<Turn> own;
  size_t owner = 0;
  for (size_t i = 0; i < turns.size(); ++i) {
    if (turns[i].status == "first") owner = i * shard.count / turns.size() + 1;
    if (owner == shard.index) own.push_back(turns[i]);
  }
  return own;
}

std::optional<Labels> ReadLabels(std::istream& lines, std::string& error) {
  Labels labels;
  std::string text;
  for (size_t number = 1; std::getline(lines, text); ++number) {
    if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::string problem = AddLine(text, labels);
    if (problem.empty()) continue;
    error = "line " + std::to_string(number) + ": " + problem;
    return std::nullopt;
  }
  if (!lines.bad() && lines.eof()) return labels;
  error = "cannot be read";
  return std::nullopt;
}

}  // namespace varnel::replay
