#include "service/cloud/http/file_downloader.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "DOWN";
constexpr long kConnectTimeoutS = 60;
constexpr long kLowSpeedBytes = 1;
constexpr long kLowSpeedS = 30;
constexpr long kMaxRedirects = 10;
constexpr int kNotBegun = 1;

using File = utils::Owned<std::FILE, std::fclose>;

int64_t SecondOf(utils::Clock::TimePoint time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

}  // namespace

/// A download and what is known of its progress.
struct FileDownloader::Transfer {
  const Progress& progress;
  const TransferStop& stop;
  std::chrono::duration<double> stall_limit;
  utils::Clock& clock;
  utils::Clock::TimePoint changed = clock.Now();
  curl_off_t received = 0;
  int64_t reported_second = -1;
};

FileDownloader::FileDownloader(std::string name, TransferStop stop, utils::Clock& clock)
    : name_(std::move(name)), stop_(std::move(stop)), clock_(clock) {
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

int FileDownloader::OnTransferInfo(void* transfer, curl_off_t expected, curl_off_t received,
                                   curl_off_t, curl_off_t) {
  auto& self = *static_cast<Transfer*>(transfer);
  if (self.stop && self.stop()) return 1;
  const auto now = self.clock.Now();
  if (received == self.received) return now - self.changed > self.stall_limit ? 1 : 0;
  self.received = received;
  self.changed = now;
  if (!self.progress || expected <= 0 || SecondOf(now) == self.reported_second) return 0;
  self.reported_second = SecondOf(now);
  // More than was announced is no more than all of it.
  const double percent = 100.0 * static_cast<double>(received) / static_cast<double>(expected);
  self.progress(std::min(percent, 100.0), received, expected);
  return 0;
}

TransferResult FileDownloader::Fetch(CURL* handle, const std::string& url, std::FILE* file,
                                     Transfer& transfer) const {
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, file);
  curl_easy_setopt(handle, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, kMaxRedirects);
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutS);
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytes);
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, kLowSpeedS);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, OnTransferInfo);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &transfer);
  return Perform(handle, url);
}

int FileDownloader::Download(const std::string& url, const std::filesystem::path& destination,
                             const Progress& progress, double stall_limit_s) {
  const auto turn = connections_.Turn();
  const CurlHandle handle = NewTransfer(connections_, "http,https,ftp,file");
  File file(handle ? std::fopen(destination.c_str(), "wbe") : nullptr);
  if (!file) return kNotBegun;
  Transfer transfer{progress, stop_, std::chrono::duration<double>(stall_limit_s), clock_};
  TransferResult result = Fetch(handle.get(), url, file.get(), transfer);
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
