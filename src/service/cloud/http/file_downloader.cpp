#include "service/cloud/http/file_downloader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include "service/cloud/http/download_options.h"
#include "service/cloud/http/stall_guard.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "DOWN";
constexpr int kNotBegun = 1;

using File = utils::Owned<std::FILE, std::fclose>;

/// Null when it cannot be, or is no regular file: a pipe would be waited for.
File OpenForWriting(const std::filesystem::path& file) {
  struct stat info {};
  utils::UniqueFd fd(
      ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0644));
  if (!fd || ::fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return nullptr;
  File opened(::fdopen(fd.Get(), "wb"));
  if (opened) (void)fd.Release();
  return opened;
}

}  // namespace

/// Writes what comes, and watches whether it comes.
class FileDownloader::Hooks : public TransferHooks {
 public:
  Hooks(const FileDownloader& owner, const std::filesystem::path& target, std::FILE* file,
        const Progress& progress, double stall_limit_s)
      : owner_(owner),
        target_(target),
        file_(file),
        progress_(progress),
        guard_(owner.clock_, stall_limit_s) {}

  bool GoOn(const TransferCount& count) override {
    if (owner_.stop_ && owner_.stop_()) return false;
    if (!guard_.GoesOn(count.received)) return false;
    return !guard_.IsNewSecond() || Report(count.expected);
  }
  bool Take(const char* data, size_t size) override {
    return std::fwrite(data, 1, size, file_) == size;
  }

 private:
  bool Report(curl_off_t expected) {
    if (!utils::HasRoom(owner_.has_space_, target_)) return false;
    if (!progress_ || expected <= 0) return true;
    // More than was announced is no more than all of it.
    const double percent =
        100.0 * static_cast<double>(guard_.Received()) / static_cast<double>(expected);
    progress_(std::min(percent, 100.0), guard_.Received(), expected);
    return true;
  }

  const FileDownloader& owner_;
  const std::filesystem::path& target_;
  std::FILE* const file_;
  const Progress& progress_;
  StallGuard guard_;
};

FileDownloader::FileDownloader(std::string name, TransferStop stop, utils::SpaceCheck has_space,
                               utils::Clock& clock)
    : name_(std::move(name)),
      stop_(std::move(stop)),
      has_space_(std::move(has_space)),
      clock_(clock) {
  VLOG_INFO(kTag, "FileDownloader '{}' initialization", name_);
}

FileDownloader::~FileDownloader() {
  VLOG_INFO(kTag, "FileDownloader '{}' deinitialization", name_);
}

bool FileDownloader::IsAcceptedUrl(const std::string& url) {
  constexpr std::array<std::string_view, 4> kSchemes{"http://", "https://", "ftp://", "file://"};
  return std::any_of(kSchemes.begin(), kSchemes.end(),
                     [&](std::string_view scheme) { return url.starts_with(scheme); });
}

int FileDownloader::Download(const std::string& url, const std::filesystem::path& destination,
                             const Progress& progress, double stall_limit_s) {
  const utils::MutexLock turn(connections_.Turn());
  if (stop_ && stop_()) return CURLE_ABORTED_BY_CALLBACK;
  File file = OpenForWriting(destination);
  if (!file) return kNotBegun;
  Hooks hooks(*this, destination, file.get(), progress, stall_limit_s);
  TransferResult result;
  {
    Transfer transfer(connections_, "http,https,ftp,file", hooks);
    SetDownloadOptions(transfer);
    result = transfer.Perform(url);
  }
  // The last bytes may meet a full disk only now.
  if (std::fclose(file.release()) != 0 && result.code == CURLE_OK)
    result = {CURLE_WRITE_ERROR, curl_easy_strerror(CURLE_WRITE_ERROR)};
  if (result.code != CURLE_OK && result.code != CURLE_ABORTED_BY_CALLBACK) {
    VLOG_ERROR(kTag, "Download failed: {} {}", static_cast<int>(result.code),
               utils::LogText(result.problem));
  }
  return result.code;
}

}  // namespace varnel::service
