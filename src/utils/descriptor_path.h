#pragma once

#include <string>

namespace varnel::utils {

/// Where the process sees its open descriptors.
inline constexpr const char* kDescriptors = "/proc/self/fd";

/// A name of what a descriptor has open, whatever its own name leads to by then.
[[nodiscard]] inline std::string DescriptorPath(int fd) {
  return std::string(kDescriptors) + '/' + std::to_string(fd);
}

}  // namespace varnel::utils
