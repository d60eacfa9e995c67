#pragma once

#include <cstddef>
#include <cstdio>

#include "replay/judgement.h"

namespace varnel::replay {

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

}  // namespace varnel::replay
