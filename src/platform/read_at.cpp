#include "platform/read_at.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace varnel::platform {

utils::UniqueFd open_for_reading(const std::string& path) {
  return utils::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

ssize_t read_at(const utils::UniqueFd& file, utils::SecretString& buffer, uint64_t offset) {
  const size_t wanted = buffer.Text().size();
  size_t done = 0;
  while (done < wanted) {
    const ssize_t got =
        ::pread(file.Get(), buffer.Data() + done, wanted - done, static_cast<off_t>(offset + done));
    if (got == 0) break;
    if (got < 0 && errno != EINTR) return -1;
    if (got > 0) done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace varnel::platform
