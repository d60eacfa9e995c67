#include "service/system/collection/scrub/source_copy.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string_view>

#include "service/system/collection/scrub/scrubbed_file.h"
#include "service/system/collection/scrub/unpacking.h"
#include "utils/descriptor_path.h"
#include "utils/last_error.h"

namespace varnel::service {
namespace {

namespace fs = std::filesystem;
using utils::DescriptorPath;
using utils::UniqueFd;

constexpr size_t kMostLeftOut = 1000;
constexpr int kMegabyteShift = 20;
constexpr std::string_view kPacked = ".gz";
constexpr int kCopyMode = 0600;

bool IsWithin(const fs::path& path, const fs::path& directory) {
  const auto differs = std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
  return differs.first == directory.end();
}

/// Where an open file or directory really lies; empty when nobody can tell.
fs::path RealPath(int fd) {
  std::error_code error;
  return fs::read_symlink(DescriptorPath(fd), error);
}

std::vector<std::string> NamesIn(int directory) {
  std::vector<std::string> names;
  const int again = ::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const utils::Owned<DIR, closedir> entries(again < 0 ? nullptr : ::fdopendir(again));
  if (!entries && again >= 0) ::close(again);
  while (entries) {
    const dirent* entry = ::readdir(entries.get());
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool Has(const std::vector<std::string>& sorted, const std::string& name) {
  return std::binary_search(sorted.begin(), sorted.end(), name);
}

/// Of an unpacked log: "x.log.2.gz" was "x.log.2", unless there is one.
std::string UnpackedName(const std::string& name, const std::vector<std::string>& names) {
  if (!name.ends_with(kPacked)) return name;
  const std::string plain = name.substr(0, name.size() - kPacked.size());
  return plain.empty() || Has(names, plain) ? name + ".unpacked" : plain;
}

/// A descriptor that only names becomes one that reads: what was looked at, nothing else.
UniqueFd OpenToRead(const UniqueFd& found, int more) {
  return UniqueFd(::open(DescriptorPath(found.Get()).c_str(),
                         O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | more));
}

std::optional<FileKind> KindOfFile(int fd) {
  std::array<char, kFileHead> head;
  const ssize_t got = ::pread(fd, head.data(), head.size(), 0);
  if (got < 0) return std::nullopt;
  return KindOf({head.data(), static_cast<size_t>(got)});
}

}  // namespace

struct SourceCopy::Place {
  int source;
  int target;
  fs::path shown;
};

CopyOutcome SourceCopy::CopyDirectory(const fs::path& source, const utils::HeldDirectory& target) {
  outcome_ = {};
  entries_ = 0;
  const UniqueFd directory(::open(source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) {
    Leave(source, utils::LastError().message());
    return outcome_;
  }
  root_ = RealPath(directory.Get());
  Walk({directory.Get(), target.Fd(), source});
  return std::move(outcome_);
}

CopyOutcome SourceCopy::CopyFile(const fs::path& source, const utils::HeldDirectory& target,
                                 const std::string& name) {
  outcome_ = {};
  struct stat info {};
  const UniqueFd found(::open(source.c_str(), O_PATH | O_CLOEXEC));
  if (!found || ::fstat(found.Get(), &info) != 0) {
    Leave(source, utils::LastError().message());
  } else if (!S_ISREG(info.st_mode)) {
    Leave(source, "not a regular file");
  } else {
    TakeFile({-1, target.Fd(), source.parent_path()}, found, info, source.filename(), name);
  }
  return std::move(outcome_);
}

void SourceCopy::Leave(const std::string& path, const std::string& why) {
  if (outcome_.left_out.size() < kMostLeftOut) outcome_.left_out.push_back({path, why});
}

bool SourceCopy::LeadsOut(int fd) const {
  const fs::path real = RealPath(fd);
  const auto holds = [&real](const fs::path& directory) { return IsWithin(real, directory); };
  const auto any = [&holds](const auto& list) {
    return std::any_of(list.begin(), list.end(), holds);
  };
  return real.empty() || any(setup_.closed) || !(holds(root_) || any(setup_.open_to_links));
}

void SourceCopy::Walk(const Place& place) {
  struct stat info {};
  if (::fstat(place.source, &info) != 0) return Leave(place.shown, utils::LastError().message());
  const std::pair<dev_t, ino_t> self{info.st_dev, info.st_ino};
  if (std::find(entered_.begin(), entered_.end(), self) != entered_.end())
    return Leave(place.shown, "a link to a directory that it lies in");
  if (entered_.size() >= setup_.max_depth) return Leave(place.shown, "too deep");
  entered_.push_back(self);
  const std::vector<std::string> names = NamesIn(place.source);
  for (const std::string& name : names) {
    if (setup_.stopped()) break;
    if (++entries_ > setup_.max_entries) {
      Leave(place.shown / name, "too many files");
      break;
    }
    Take(place, name, names);
  }
  entered_.pop_back();
}

void SourceCopy::Take(const Place& place, const std::string& name,
                      const std::vector<std::string>& names) {
  const std::string shown = place.shown / name;
  struct stat link {};
  struct stat info {};
  // Neither waits for a FIFO nor wakes a device: it only names what is there.
  const UniqueFd found(::openat(place.source, name.c_str(), O_PATH | O_CLOEXEC));
  if (!found || ::fstat(found.Get(), &info) != 0)
    return Leave(shown, errno == ELOOP ? "a link to itself" : utils::LastError().message());
  const bool is_link = ::fstatat(place.source, name.c_str(), &link, AT_SYMLINK_NOFOLLOW) != 0 ||
                       S_ISLNK(link.st_mode);
  if (!S_ISDIR(info.st_mode) && !S_ISREG(info.st_mode)) return Leave(shown, "not a regular file");
  if (is_link && LeadsOut(found.Get())) return Leave(shown, "a link that leads out");
  if (S_ISDIR(info.st_mode)) return Enter(place, found, name);
  TakeFile(place, found, info, name, UnpackedName(name, names));
}

void SourceCopy::Enter(const Place& place, const UniqueFd& found, const std::string& name) {
  const fs::path shown = place.shown / name;
  const UniqueFd source = OpenToRead(found, O_DIRECTORY);
  if (!source || ::mkdirat(place.target, name.c_str(), 0700) != 0)
    return Leave(shown, utils::LastError().message());
  const UniqueFd target(
      ::openat(place.target, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!target) return Leave(shown, utils::LastError().message());
  Walk({source.Get(), target.Get(), shown});
}

void SourceCopy::TakeFile(const Place& place, const UniqueFd& found, const struct stat& info,
                          const std::string& name, const std::string& target_name) {
  const std::string shown = place.shown / name;
  const auto size = static_cast<uint64_t>(info.st_size);
  if (IsSecretFile(name) || IsSecretFile(target_name)) return Leave(shown, "a file of secrets");
  if (IsSecretFile(RealPath(found.Get()).filename().string()))
    return Leave(shown, "a link to a file of secrets");
  const uint64_t expected = std::min(size, setup_.max_file_bytes);
  if (outcome_.bytes + expected > setup_.max_bytes) return Leave(shown, "too large with the rest");
  if (!setup_.has_room(expected)) return Leave(shown, "no room");
  const UniqueFd source = OpenToRead(found, 0);
  if (!source) return Leave(shown, utils::LastError().message());
  const UniqueFd target(::openat(place.target, target_name.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kCopyMode));
  if (!target) return Leave(shown, utils::LastError().message());
  if (Write(source, info, target.Get(), shown)) {
    const std::array<timespec, 2> times{info.st_atim, info.st_mtim};
    (void)::futimens(target.Get(), times.data());
  } else {
    ::unlinkat(place.target, target_name.c_str(), 0);
  }
}

/// False when there is to be no copy, which has been told.
bool SourceCopy::Write(const UniqueFd& source, const struct stat& info, int target,
                       const std::string& shown) {
  ScrubbedFile copy(target, *setup_.held);
  const auto size = static_cast<uint64_t>(info.st_size);
  const bool packed = KindOfFile(source.Get()) == FileKind::kGzip;
  const uint64_t first = packed || size <= setup_.max_file_bytes ? 0 : size - setup_.max_file_bytes;
  const std::string problem =
      packed ? Unpack({setup_.gzip, setup_.max_file_bytes, setup_.stopped}, source.Get(), copy)
             : ReadInto(copy, source.Get(), first, size, setup_.stopped);
  const std::error_code error = copy.Finish();
  outcome_.bytes += copy.Bytes();
  outcome_.masked += copy.Masked();
  if (copy.IsRefused()) {
    Leave(shown, copy.Kind() == FileKind::kPrivateKey ? "a private key"
                                                      : "compressed in a way that is not opened");
    return false;
  }
  if (error || !problem.empty()) Leave(shown, error ? error.message() : problem);
  if (first > 0) {
    Leave(shown,
          "all but its last " + std::to_string(setup_.max_file_bytes >> kMegabyteShift) + " MiB");
  }
  return !error && (problem.empty() || copy.Bytes() > 0);
}

}  // namespace varnel::service
