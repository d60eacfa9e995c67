#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "service/cloud/http/curl_transfer.h"
#include "utils/clock.h"
#include "utils/free_space.h"

namespace varnel::service {

/// Fetches a URL into a file. One download at a time; thread-safe.
class FileDownloader {
 public:
  /// At most once a second, by the thread that downloads: 0 to 100, bytes received and expected.
  /// Never called while the size is not known.
  using Progress = std::function<void(double percent, int64_t received, int64_t expected)>;

  /// @param name tells it from others in log lines
  /// @param stop ends the download that runs
  /// @param has_space asked about once a second for the file; false ends the download
  explicit FileDownloader(std::string name, TransferStop stop = nullptr,
                          utils::SpaceCheck has_space = nullptr,
                          utils::Clock& clock = utils::SystemClock::Instance());
  FileDownloader(const FileDownloader&) = delete;
  FileDownloader& operator=(const FileDownloader&) = delete;
  ~FileDownloader();

  /// It begins as one that can be fetched: with http, https, ftp or file. It may come from a
  /// stranger: whoever takes it from one accepts http and https alone.
  [[nodiscard]] static bool IsAcceptedUrl(const std::string& url);

  /// A status of 400 and above is a failure; redirects are followed, to http and https only.
  /// @param stall_limit_s without a byte for longer than this, the connection's begin included, it
  ///   is given up
  /// @return 0, else a code of the library; 1 also when nothing could be begun. What was fetched
  ///   by then stays in the file.
  [[nodiscard]] int Download(const std::string& url, const std::filesystem::path& destination,
                             const Progress& progress, double stall_limit_s);

 private:
  class Hooks;

  const std::string name_;
  const TransferStop stop_;
  const utils::SpaceCheck has_space_;
  utils::Clock& clock_;
  ConnectionShare connections_;
};

}  // namespace varnel::service
