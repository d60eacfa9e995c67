#include "replay/scratch_directory.h"
#include "utils/last_error.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace varnel::replay {

ScratchDirectory::ScratchDirectory(const std::filesystem::path& parent) {
  std::string name = (parent / ".replay-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr)
    throw std::system_error(utils::LastError(), parent.string());
  path_ = name;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace varnel::replay
