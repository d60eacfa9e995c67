#pragma once

#include <curl/curl.h>

#include <functional>
#include <mutex>
#include <string>

#include "utils/owned.h"

namespace varnel::service {

/// Asked several times a second while a transfer runs, by the thread that runs it: true ends it.
using TransferStop = std::function<bool()>;

/// Before the process has a second thread, which the library asks for. A failure is logged, and
/// every transfer fails afterwards.
void InitCurl();

using CurlHandle = utils::Owned<CURL, curl_easy_cleanup>;
using CurlHeaders = utils::Owned<curl_slist, curl_slist_free_all>;

/// Connections that outlive the handles that opened them: a new one costs a handshake. The library
/// does not let two threads use them at once, so there is one transfer at a time.
class ConnectionShare {
 public:
  ConnectionShare();
  ConnectionShare(const ConnectionShare&) = delete;
  ConnectionShare& operator=(const ConnectionShare&) = delete;

  /// Held from before the first use of a handle until after its end.
  [[nodiscard]] std::unique_lock<std::mutex> Turn() { return std::unique_lock(mutex_); }
  CURLSH* Handle() const { return share_.get(); }

 private:
  std::mutex mutex_;
  const utils::Owned<CURLSH, curl_share_cleanup> share_;
};

/// How a transfer ended, and the library's own words for it; they name hosts, but no query.
struct TransferResult {
  CURLcode code = CURLE_FAILED_INIT;
  std::string problem{};
};

/// A new handle of the share with what holds for every transfer: no signals, no proxy whatever the
/// environment says, only these protocols ("http,https"), no wait for a silent name server at the
/// end. Null when the library has no memory. The share must outlive it.
[[nodiscard]] CurlHandle NewTransfer(const ConnectionShare& share, const char* protocols);

/// Sets the URL and performs. A URL that the library would read otherwise than it is written (it
/// ends at a zero byte) is refused. So are headers without end, and an answer that ends within
/// them, which the library takes for a whole one.
[[nodiscard]] TransferResult Perform(CURL* handle, const std::string& url);

}  // namespace varnel::service
