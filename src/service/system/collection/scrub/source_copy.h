#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "service/system/collection/scrub/held_values.h"
#include "utils/held_directory.h"
#include "utils/owned.h"

namespace varnel::service {

/// What was not taken along, and why.
struct LeftOut {
  std::string path;
  std::string why;
};

struct CopyOutcome {
  uint64_t bytes = 0;
  uint64_t masked = 0;  ///< values
  std::vector<LeftOut> left_out;
};

struct CopySetup {
  const HeldValues* held = nullptr;  ///< outlives the copying
  /// Where links may lead, besides the source itself.
  std::vector<std::filesystem::path> open_to_links = {"/home/ruxo", "/userdata", "/var/log"};
  /// But never here.
  std::vector<std::filesystem::path> closed = {"/home/ruxo/printer_data/certs"};
  std::function<bool()> stopped = [] { return false; };
  std::function<bool(uint64_t bytes)> has_room = [](uint64_t) { return true; };
  std::string gzip = "/usr/bin/gzip";
  uint64_t max_file_bytes = uint64_t{1} << 30U;
  uint64_t max_bytes = uint64_t{4} << 30U;
  size_t max_entries = 20'000;
  size_t max_depth = 32;
};

/// Copies what others wrote, without secrets: regular files only, links followed where they lead to
/// what may be seen, nothing endless. Whatever lies there, it ends, and the rest is copied.
class SourceCopy {
 public:
  explicit SourceCopy(CopySetup setup) : setup_(std::move(setup)) {}

  /// The content of a directory into another one, which nobody else writes to. Compressed logs are
  /// unpacked, and lose the ".gz" of their names. Only a source that cannot be opened has no copy,
  /// which is then told as left out.
  [[nodiscard]] CopyOutcome CopyDirectory(const std::filesystem::path& source,
                                          const utils::HeldDirectory& target);
  /// One file to a name in that directory.
  [[nodiscard]] CopyOutcome CopyFile(const std::filesystem::path& source,
                                     const utils::HeldDirectory& target, const std::string& name);

 private:
  struct Place;  ///< in the source, and in the copy

  void Walk(const Place& place);
  void Take(const Place& place, const std::string& name, const std::vector<std::string>& names);
  void Enter(const Place& place, const utils::UniqueFd& found, const std::string& name);
  void TakeFile(const Place& place, const utils::UniqueFd& found, const struct stat& info,
                const std::string& name, const std::string& target_name);
  [[nodiscard]] bool Write(const utils::UniqueFd& source, const struct stat& info, int target,
                           const std::string& shown);
  void Leave(const std::string& path, const std::string& why);
  [[nodiscard]] bool LeadsOut(int fd) const;

  const CopySetup setup_;
  CopyOutcome outcome_;
  std::filesystem::path root_;  ///< of the source, as it really is
  size_t entries_ = 0;
  std::vector<std::pair<dev_t, ino_t>> entered_;  ///< directories on the way down
};

}  // namespace varnel::service
