#include "platform/upgrade_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <stop_token>
#include <utility>

#include "utils/log_printf.h"
#include "utils/thread.h"

namespace varnel::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kTag = "IMSYS";
constexpr const char* kPrefix = ".upgrade-";
constexpr const char* kThread = "upgrade-output";
/// Between two looks a script can write some ten megabytes.
constexpr auto kLookPause = 20ms;
/// Of earlier scripts often a service is left that they have started.
constexpr auto kLeftoverPause = 1s;

/// Only what a daemon of ours has made is opened: others may plant what they like in the directory.
bool IsOurs(const utils::UniqueFd& file) {
  struct stat info {};
  return file && ::fstat(file.Get(), &info) == 0 && S_ISREG(info.st_mode) &&
         info.st_uid == ::geteuid() && info.st_nlink == 1;
}

/// False when the guard is to end.
bool Pause(const std::stop_token& stop, std::chrono::milliseconds time) {
  std::mutex mutex;
  std::condition_variable_any wake;
  std::unique_lock lock(mutex);
  return !wake.wait_for(lock, stop, time, [&] { return stop.stop_requested(); });
}

bool EndedAndRemoved(const UpgradeOutput& output) {
  if (output.InUse()) return false;
  output.Remove();
  return true;
}

}  // namespace

UpgradeOutput::UpgradeOutput(std::string path, utils::UniqueFd file)
    : path_(std::move(path)), file_(std::move(file)) {}

std::string UpgradeOutput::NamesIn(const std::string& directory) {
  return directory + "/" + kPrefix + "*";
}

std::optional<UpgradeOutput> UpgradeOutput::Create(const std::string& directory) {
  std::string path = directory + "/" + kPrefix + "XXXXXX";
  utils::UniqueFd file(::mkostemp(path.data(), O_CLOEXEC));
  if (!file) return std::nullopt;
  return UpgradeOutput(std::move(path), std::move(file));
}

std::vector<UpgradeOutput> UpgradeOutput::FindIn(const std::string& directory) {
  std::vector<UpgradeOutput> found;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    if (!entry->path().filename().string().starts_with(kPrefix)) continue;
    utils::UniqueFd file(
        ::open(entry->path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (IsOurs(file)) found.push_back(UpgradeOutput(entry->path(), std::move(file)));
  }
  return found;
}

std::string UpgradeOutput::Beginning() const {
  std::string text(kKept, '\0');
  const ssize_t size = ::pread(file_.Get(), text.data(), text.size(), 0);
  text.resize(size > 0 ? static_cast<size_t>(size) : 0);
  return text;
}

/// The script appends, so its next line lands at the new end.
void UpgradeOutput::CutIfLong() const {
  struct stat info {};
  if (::fstat(file_.Get(), &info) != 0 || info.st_size <= static_cast<off_t>(kLimit)) return;
  // The same file whatever stands at its path now, and open for writing just now: see InUse().
  const std::string same = "/proc/self/fd/" + std::to_string(file_.Get());
  const utils::UniqueFd file(::open(same.c_str(), O_WRONLY | O_CLOEXEC));
  if (!file || ::ftruncate(file.Get(), kKept) != 0) {
    PLOG_WARN(kTag, "The output of the upgrade cannot be cut, errno = %d", errno);
  }
}

/// Such a lease is refused while somebody writes; it is given back at once.
bool UpgradeOutput::InUse() const {
  if (::fcntl(file_.Get(), F_SETLEASE, F_RDLCK) != 0) return true;
  ::fcntl(file_.Get(), F_SETLEASE, F_UNLCK);
  return false;
}

void UpgradeOutput::Remove() const {
  ::unlink(path_.c_str());
}

UpgradeOutputGuard::UpgradeOutputGuard(const UpgradeOutput& output)
    : thread_(utils::SpawnGuarded(kThread, kTag, [&output](const std::stop_token& stop) {
        do output.CutIfLong();
        while (Pause(stop, kLookPause));
      })) {}

UpgradeOutputGuard::UpgradeOutputGuard(std::vector<UpgradeOutput> leftovers) {
  std::erase_if(leftovers, EndedAndRemoved);
  if (leftovers.empty()) return;
  thread_ = utils::SpawnGuarded(
      kThread, kTag, [leftovers = std::move(leftovers)](const std::stop_token& stop) mutable {
        while (!leftovers.empty() && Pause(stop, kLeftoverPause)) {
          for (const UpgradeOutput& output : leftovers) output.CutIfLong();
          std::erase_if(leftovers, EndedAndRemoved);
        }
      });
}

}  // namespace varnel::platform
