#include "virtual_board/common/files.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

#include "virtual_board/common/fd.h"

namespace varnel::board {

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool ReplaceFile(const std::filesystem::path& path, const std::string& content) {
  std::filesystem::path temporary = path;
  temporary += ".new";
  std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  std::error_code error;
  if (out) std::filesystem::rename(temporary, path, error);
  return out && !error;
}

bool EditFile(const std::filesystem::path& path,
              const std::function<std::string(const std::string&)>& edit) {
  // The lock of the directory ends with the descriptor.
  const Fd lock(::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock || ::flock(lock.Get(), LOCK_EX) != 0) return false;
  return ReplaceFile(path, edit(ReadFile(path)));
}

std::filesystem::path NewTemporaryDirectory(const std::string& name) {
  std::string path = (std::filesystem::temp_directory_path() / (name + "-XXXXXX")).string();
  if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary directory");
  return path;
}

}  // namespace varnel::board
