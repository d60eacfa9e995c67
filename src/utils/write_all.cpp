#include "utils/write_all.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "utils/last_error.h"

namespace varnel::utils {

std::error_code WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) {
      return LastError();
    }
    bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
  }
  return {};
}

}  // namespace varnel::utils
