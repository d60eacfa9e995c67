#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace varnel::utils {

/// What the maker chooses at deployment. Every value has a working default.
struct Deployment {
  /// Frames, archives and downloads fail below this much free space; 0 switches the check off.
  uint64_t min_free_space_mib = 64;
  /// Where clients may have files written besides inserted drives; empty: nowhere else.
  std::vector<std::filesystem::path> client_write_directories = {"/userdata", "/tmp"};
  /// Where the board's identity block lies: a file or block device, and the first byte in it.
  std::string identity_device = "/dev/mmcblk0";
  uint64_t identity_offset = 26'624;
  /// The key of an encrypted identity block; empty: there is none.
  std::string identity_key_file;
};

/// Reads the file once at start. A missing file means defaults; a broken one or one over 1 MiB the
/// same with a warning. An unknown key or a wrong value is warned about by its path, and that key
/// keeps its default.
[[nodiscard]] Deployment LoadDeployment(const std::filesystem::path& file);

}  // namespace varnel::utils
