#include "virtual_board/camera/frame_source.h"

#include <fcntl.h>

#include <filesystem>
#include <system_error>

#include "virtual_board/common/fd.h"
#include "virtual_board/common/files.h"

namespace varnel::board {

namespace fs = std::filesystem;

namespace {

bool ReadExactly(const fs::path& path, char* target, size_t size) {
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  size_t done = 0;
  while (file && done < size) {
    const ssize_t got = ::read(file.Get(), target + done, size - done);
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  return done == size;
}

bool IsFrame(const fs::directory_entry& entry, const FrameFormat& format) {
  std::error_code error;
  return entry.path().extension() == format.extension &&
         entry.file_size(error) == format.frame_size && !error;
}

}  // namespace

std::optional<std::string> FrameSource::Next(const FrameFormat& format) const {
  const std::string last = ReadFile(files_.LastFrame());
  std::optional<std::string> first;
  std::optional<std::string> next;
  std::error_code error;
  for (fs::directory_iterator it(files_.Frames(), error), end; !error && it != end;
       it.increment(error)) {
    if (!IsFrame(*it, format)) continue;
    const std::string name = it->path().filename();
    if (!first || name < *first) first = name;
    if (name > last && (!next || name < *next)) next = name;
  }
  return next ? next : first;
}

bool FrameSource::Deliver(const FrameFormat& format, void* target) const {
  const auto name = Next(format);
  if (!name) return false;
  if (!ReadExactly(files_.Frames() / *name, static_cast<char*>(target), format.frame_size)) {
    return false;
  }
  files_.Note("frame " + *name);
  return ReplaceFile(files_.LastFrame(), *name);
}

}  // namespace varnel::board
