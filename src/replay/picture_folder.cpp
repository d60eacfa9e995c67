#include "replay/picture_folder.h"

#include <strings.h>

#include <algorithm>

#include "replay/file_digest.h"
#include "utils/directory_entries.h"

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
    Sha256 sum;
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

}  // namespace

PictureList ListPictures(const fs::path& folder, bool prints, std::error_code& error) {
  Lister lister(folder);
  error = lister.List("", prints);
  if (error) return {};
  return lister.Take();
}

}  // namespace varnel::replay
