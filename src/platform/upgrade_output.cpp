#include "platform/upgrade_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <system_error>
#include <utility>

#include "utils/descriptor_path.h"
#include "utils/log_printf.h"

namespace varnel::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kTag = "IMSYS";
constexpr const char* kPrefix = ".upgrade-";
constexpr const char* kThread = "upgrade-output";
/// Between two looks a script can write some ten megabytes.
constexpr auto kLookPause = 20ms;
/// What is left of a script is often a service that says little and runs for good.
constexpr auto kLeftoverPause = 100ms;

/// Only what a daemon of ours has made is opened: others may plant what they like in the directory.
bool IsOurs(const utils::UniqueFd& file) {
  struct stat info {};
  return file && ::fstat(file.Get(), &info) == 0 && S_ISREG(info.st_mode) &&
         info.st_uid == ::geteuid() && info.st_nlink == 1;
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
  const utils::UniqueFd made(::mkostemp(path.data(), O_CLOEXEC));
  if (!made) return std::nullopt;
  // Our own descriptor must not count as a writer: see InUse().
  utils::UniqueFd file(::open(utils::DescriptorPath(made.Get()).c_str(), O_RDONLY | O_CLOEXEC));
  UpgradeOutput output(std::move(path), std::move(file));
  if (output.file_) return output;
  output.Remove();
  return std::nullopt;
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
  const utils::UniqueFd file(
      ::open(utils::DescriptorPath(file_.Get()).c_str(), O_WRONLY | O_CLOEXEC));
  if (!file || ::ftruncate(file.Get(), kKept) != 0) {
    PLOG_WARN(kTag, "The output of the upgrade cannot be cut, errno = %d", errno);
  }
}

/// Such a lease is refused while somebody writes; it is given back at once. A file system that has
/// none cannot tell.
bool UpgradeOutput::InUse() const {
  if (::fcntl(file_.Get(), F_SETLEASE, F_RDLCK) != 0) return errno == EAGAIN;
  ::fcntl(file_.Get(), F_SETLEASE, F_UNLCK);
  return false;
}

void UpgradeOutput::Remove() const {
  ::unlink(path_.c_str());
}

UpgradeOutputGuard::UpgradeOutputGuard(const UpgradeOutput& output)
    : thread_(kThread, kTag, utils::SystemClock::Instance(),
              [&output](const utils::PausingThread::Pause& pause) {
                do output.CutIfLong();
                while (pause(kLookPause));
              }) {}

void UpgradeLeftovers::Keep(std::vector<UpgradeOutput> outputs) {
  const utils::MutexLock lock(mutex_);
  thread_.reset();
  std::move(outputs.begin(), outputs.end(), std::back_inserter(outputs_));
  std::erase_if(outputs_, EndedAndRemoved);
  if (outputs_.empty()) return;
  try {
    thread_.emplace(kThread, kTag, utils::SystemClock::Instance(),
                    [this](const utils::PausingThread::Pause& pause) { LookAfterAll(pause); });
  } catch (const std::system_error& error) {
    PLOG_WARN(kTag, "The output that an upgrade goes on writing is not looked after: %s",
              error.what());
  }
}

void UpgradeLeftovers::Release() {
  const utils::MutexLock lock(mutex_);
  thread_.reset();
}

void UpgradeLeftovers::LookAfterAll(const utils::PausingThread::Pause& pause) {
  do {
    for (const UpgradeOutput& output : outputs_) output.CutIfLong();
    std::erase_if(outputs_, EndedAndRemoved);
  } while (!outputs_.empty() && pause(kLeftoverPause));
}

}  // namespace varnel::platform
