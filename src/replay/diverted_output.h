#pragma once

#include <cstdio>
#include <filesystem>
#include <memory>

namespace varnel::replay {

/// Keeps standard output for people. Runtime, networks and pictures write their messages there too,
/// several a picture: while this lives they go to a file.
class DivertedOutput {
 public:
  /// Replaces the file. Throws std::system_error.
  explicit DivertedOutput(const std::filesystem::path& messages);
  /// Standard output is as before.
  ~DivertedOutput();
  DivertedOutput(const DivertedOutput&) = delete;
  DivertedOutput& operator=(const DivertedOutput&) = delete;

  /// What standard output was.
  [[nodiscard]] std::FILE* ForPeople() const { return people_.get(); }

 private:
  struct Closer {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Closer> people_;
};

}  // namespace varnel::replay
