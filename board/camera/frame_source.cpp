#include "virtual_board/camera/frame_source.h"

#include <fcntl.h>

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

}  // namespace

FrameSource::FrameSource(CameraFiles files, std::string extension, size_t frame_size)
    : files_(std::move(files)), extension_(std::move(extension)), frame_size_(frame_size) {}

bool FrameSource::IsFrame(const fs::directory_entry& entry) const {
  std::error_code error;
  return entry.path().extension() == extension_ && entry.file_size(error) == frame_size_ && !error;
}

std::optional<std::string> FrameSource::Next() const {
  const std::string last = ReadFile(files_.LastFrame());
  std::optional<std::string> first;
  std::optional<std::string> next;
  std::error_code error;
  for (fs::directory_iterator it(files_.Frames(), error), end; !error && it != end;
       it.increment(error)) {
    if (!IsFrame(*it)) continue;
    const std::string name = it->path().filename();
    if (!first || name < *first) first = name;
    if (name > last && (!next || name < *next)) next = name;
  }
  return next ? next : first;
}

bool FrameSource::Deliver(void* target) const {
  const auto name = Next();
  if (!name || !ReadExactly(files_.Frames() / *name, static_cast<char*>(target), frame_size_)) {
    return false;
  }
  files_.Note("frame " + *name);
  return ReplaceFile(files_.LastFrame(), *name);
}

}  // namespace varnel::board
