#include "utils/directory_entries.h"

namespace varnel::utils {

namespace fs = std::filesystem;

std::vector<fs::directory_entry> DirectoryEntries(const fs::path& directory,
                                                  std::error_code& error) {
  std::vector<fs::directory_entry> entries;
  for (fs::directory_iterator it(directory, error), end; !error && it != end; it.increment(error))
    entries.push_back(*it);
  return entries;
}

}  // namespace varnel::utils
