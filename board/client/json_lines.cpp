#include "virtual_board/client/json_lines.h"

#include <fstream>
#include <string>

namespace varnel::board {

std::vector<nlohmann::json> JsonLines(const std::filesystem::path& file, std::streamoff& from) {
  std::ifstream lines(file);
  lines.seekg(from);
  std::vector<nlohmann::json> found;
  for (std::string line; std::getline(lines, line) && !lines.eof();) {
    found.push_back(nlohmann::json::parse(line));
    from += static_cast<std::streamoff>(line.size()) + 1;
  }
  return found;
}

}  // namespace varnel::board
