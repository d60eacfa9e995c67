#include "utils/directory_entries.h"

namespace varnel::utils {

namespace fs = std::filesystem;

void ForEachEntry(const fs::path& directory, std::error_code& error,
                  const std::function<void(const fs::directory_entry& entry)>& visit) {
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error))
    visit(*it);
}

std::vector<fs::directory_entry> DirectoryEntries(const fs::path& directory,
                                                  std::error_code& error) {
  std::vector<fs::directory_entry> entries;
  ForEachEntry(directory, error, [&](const auto& entry) { entries.push_back(entry); });
  return entries;
}

}  // namespace varnel::utils
