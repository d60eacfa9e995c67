#include "virtual_board/common/files.h"

#include <fstream>
#include <iterator>
#include <system_error>

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

}  // namespace varnel::board
