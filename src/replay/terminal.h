#pragma once

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "replay/picture_judge.h"

namespace varnel::replay {

/// Says on standard error what is wrong.
void Complain(const std::string& text);

/// Tells how far a replay is: on a terminal in one line that is written anew, elsewhere in a line
/// for each picture. Pictures that were not judged keep their line.
class Progress {
 public:
  Progress(std::FILE* out, bool terminal, size_t pictures)
      : out_(out), terminal_(terminal), pictures_(pictures) {}
  /// Takes the last line off a terminal.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Add(const Judgement& judgement);

 private:
  std::FILE* const out_;
  const bool terminal_;
  const size_t pictures_;
  size_t done_ = 0;
};

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

/// From now on the first SIGINT or SIGTERM asks for an end after the current picture; the second
/// one ends the program.
void CatchInterruption();
/// Whether that was asked for.
[[nodiscard]] bool Interrupted();

}  // namespace varnel::replay
