#include "replay/picture_folder.h"

#include <strings.h>

#include <algorithm>

namespace varnel::replay {
namespace {

namespace fs = std::filesystem;

bool IsPicture(const fs::directory_entry& entry) {
  const std::string ending = entry.path().extension().string();
  std::error_code ignored;
  return (::strcasecmp(ending.c_str(), ".jpg") == 0 ||
          ::strcasecmp(ending.c_str(), ".jpeg") == 0) &&
         entry.is_regular_file(ignored);
}

}  // namespace

std::vector<std::string> ListPictures(const fs::path& folder, std::error_code& error) {
  std::vector<std::string> names;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (IsPicture(*entry)) names.push_back(entry->path().filename().string());
  }
  if (error) names.clear();
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace varnel::replay
