#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

namespace varnel::test {

/// A directory of its own for one test; removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "varnel-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }
  std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

  /// Writes a file below the directory (with the directories it needs) and returns its path.
  std::filesystem::path Write(std::string_view name, std::string_view content) const {
    const std::filesystem::path file = path_ / name;
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
  }
  /// An executable shell script, the stand-in for an external program.
  std::filesystem::path WriteScript(std::string_view name, std::string_view body) const {
    const std::filesystem::path file = Write(name, "#!/bin/sh\n" + std::string(body) + "\n");
    std::filesystem::permissions(file, std::filesystem::perms(0755));
    return file;
  }

 private:
  std::filesystem::path path_;
};

/// The whole content; empty when there is no such file.
inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace varnel::test
