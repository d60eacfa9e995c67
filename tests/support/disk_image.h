#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <utility>

namespace varnel::test {

/// What a disk holds: by relative path, "d" for a directory, "l" and the
/// target for a link, "f" and the content for a file.
using DiskImage = std::map<std::string, std::string>;

/// Replaces what lies below `root` by an image.
void RestoreDisk(const std::filesystem::path& root, const DiskImage& image);

/// Follows what a process does below a directory, and tells what a power cut would leave at this
/// moment: the content of a file is that of its last fsync, nothing before the first.
class DiskRecorder {
 public:
  explicit DiskRecorder(std::filesystem::path root);

  /// A thread of the stopped process has synced one of its descriptors.
  void Synced(pid_t thread, int descriptor);

  /// All names are there, as journals write them out sooner or later, in their order; with all
  /// contents too when only the process has ended.
  [[nodiscard]] DiskImage WithAllNames(bool all_contents = false) const;
  /// A directory's names are those of its last fsync.
  [[nodiscard]] DiskImage WithSyncedNames() const;

 private:
  /// With the time of its birth: the number alone may be used again.
  using Inode = std::pair<uint64_t, int64_t>;
  struct Entry {
    char kind = 'f';
    Inode inode;
    std::string target;
  };
  using Names = std::map<std::string, Entry>;

  static Inode InodeOf(const std::filesystem::path& path);
  static Names NamesIn(const std::filesystem::path& directory);
  std::string Content(const Entry& entry) const;
  void AddLive(const std::filesystem::path& directory, const std::string& prefix, bool all_contents,
               DiskImage& image) const;
  void AddSynced(const Inode& directory, const std::string& prefix, DiskImage& image) const;

  const std::filesystem::path root_;
  std::map<Inode, std::string> contents_;
  std::map<Inode, Names> names_;
};

}  // namespace varnel::test
