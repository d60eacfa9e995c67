#include "support/disk_image.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "support/temp_dir.h"

namespace varnel::test {

namespace fs = std::filesystem;

void RestoreDisk(const fs::path& root, const DiskImage& image) {
  for (const auto& entry : fs::directory_iterator(root)) fs::remove_all(entry.path());
  for (const auto& [name, value] : image) {
    const std::string rest = value.substr(1);
    if (value[0] == 'd') {
      fs::create_directory(root / name);
    } else if (value[0] == 'l') {
      fs::create_symlink(rest, root / name);
    } else {
      std::ofstream(root / name, std::ios::binary) << rest;
    }
  }
}

DiskRecorder::DiskRecorder(fs::path root) : root_(std::move(root)) {
  names_[InodeOf(root_)] = NamesIn(root_);
}

DiskRecorder::Inode DiskRecorder::InodeOf(const fs::path& path) {
  struct statx info {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &info) != 0)
    return {};
  return {info.stx_ino, info.stx_btime.tv_sec * 1'000'000'000 + info.stx_btime.tv_nsec};
}

DiskRecorder::Names DiskRecorder::NamesIn(const fs::path& directory) {
  Names names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    Entry& one = names[entry.path().filename()];
    one.inode = InodeOf(entry.path());
    if (entry.is_symlink()) {
      one.kind = 'l';
      one.target = fs::read_symlink(entry.path());
    } else if (entry.is_directory()) {
      one.kind = 'd';
    }
  }
  return names;
}

void DiskRecorder::Synced(pid_t thread, int descriptor) {
  const fs::path path = fmt::format("/proc/{}/fd/{}", thread, descriptor);
  const fs::path file = fs::read_symlink(path);
  if (fs::is_directory(path)) {
    std::error_code error;  // another thread may have removed it by now
    if (fs::is_directory(file, error)) names_[InodeOf(file)] = NamesIn(file);
  } else {
    contents_[InodeOf(file)] = ReadFile(path);
  }
}

std::string DiskRecorder::Content(const Entry& entry) const {
  if (entry.kind != 'f') return entry.kind + entry.target;
  const auto found = contents_.find(entry.inode);
  return 'f' + (found != contents_.end() ? found->second : "");
}

void DiskRecorder::AddLive(const fs::path& directory, const std::string& prefix, bool all_contents,
                           DiskImage& image) const {
  for (const auto& [name, entry] : NamesIn(directory)) {
    const bool as_it_is = all_contents && entry.kind == 'f';
    image[prefix + name] = as_it_is ? 'f' + ReadFile(directory / name) : Content(entry);
    if (entry.kind == 'd') AddLive(directory / name, prefix + name + '/', all_contents, image);
  }
}

void DiskRecorder::AddSynced(const Inode& directory, const std::string& prefix,
                             DiskImage& image) const {
  const auto found = names_.find(directory);
  if (found == names_.end()) return;
  for (const auto& [name, entry] : found->second) {
    image[prefix + name] = Content(entry);
    if (entry.kind == 'd') AddSynced(entry.inode, prefix + name + '/', image);
  }
}

DiskImage DiskRecorder::WithAllNames(bool all_contents) const {
  DiskImage image;
  AddLive(root_, "", all_contents, image);
  return image;
}

DiskImage DiskRecorder::WithSyncedNames() const {
  DiskImage image;
  AddSynced(InodeOf(root_), "", image);
  return image;
}

}  // namespace varnel::test
