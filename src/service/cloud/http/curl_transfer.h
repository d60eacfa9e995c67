#pragma once

#include <curl/curl.h>

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "utils/mutex.h"
#include "utils/owned.h"

namespace varnel::service {

/// Asked several times a second while a transfer runs, by the thread that runs it, and before it
/// begins: true ends it.
using TransferStop = std::function<bool()>;

/// Before the process has a second thread, which the library asks for. A failure is logged, and no
/// transfer begins afterwards.
void InitCurl();

using CurlHandle = utils::Owned<CURL, curl_easy_cleanup>;
using CurlMulti = utils::Owned<CURLM, curl_multi_cleanup>;
using CurlHeaders = utils::Owned<curl_slist, curl_slist_free_all>;

/// False when there is no memory; the list is as it was.
[[nodiscard]] bool AppendHeader(CurlHeaders& lines, const char* line);

/// Connections that outlive the handles that opened them: a new one costs a handshake. The library
/// does not let two threads use them at once, so there is one transfer at a time.
class ConnectionShare {
 public:
  ConnectionShare();
  ConnectionShare(const ConnectionShare&) = delete;
  ConnectionShare& operator=(const ConnectionShare&) = delete;

  /// Held from before the first use of a handle until after its end.
  utils::Mutex& Turn() { return mutex_; }
  CURLSH* Handle() const { return share_.get(); }
  /// What runs a transfer of it; null when there is no memory.
  CURLM* Runner() const { return multi_.get(); }

 private:
  utils::Mutex mutex_;
  const utils::Owned<CURLSH, curl_share_cleanup> share_;
  const CurlMulti multi_;  // making one costs as much as a small request
};

/// How a transfer ended, and the library's own words for it; they name hosts, but no query.
struct TransferResult {
  CURLcode code = CURLE_FAILED_INIT;
  std::string problem{};
};

/// How far a transfer is, in bytes of the bodies.
struct TransferCount {
  curl_off_t expected = 0;  ///< of the answer; 0: not known
  curl_off_t received = 0;
  curl_off_t sent = 0;  ///< that the system has taken
};

/// What the library calls while it transfers. An exception must not cross the library: it is kept,
/// and the transfer ends.
class TransferHooks {
 public:
  virtual ~TransferHooks() = default;
  /// False ends the transfer.
  virtual bool GoOn(const TransferCount& count) = 0;
  /// False ends the transfer.
  virtual bool Take(const char* data, size_t size) = 0;
  /// The next bytes of the body that is sent: how many were put there. Nothing ends the transfer.
  virtual std::optional<size_t> Give(char*, size_t) { return std::nullopt; }
  /// Each header line as it came, of each answer.
  virtual void Header(std::string_view) {}

 private:
  friend class Transfer;
  std::exception_ptr thrown_;
};

/// One transfer of a share, with what holds for all of them: no signals, no proxy whatever the
/// environment says, only the named protocols, no wait for a silent name server at the end.
class Transfer {
 public:
  /// @param protocols "http,https"
  /// The share and the hooks must outlive it; the share's turn is the caller's.
  Transfer(const ConnectionShare& share, const char* protocols, TransferHooks& hooks);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// An option of the library; one that it does not take fails the transfer.
  template <class Value>
  void Set(CURLoption option, Value value) {
    if (handle_ && curl_easy_setopt(handle_.get(), option, value) != CURLE_OK) usable_ = false;
  }
  /// Seconds; more than the library can count are the most that it can.
  void SetSeconds(CURLoption option, int64_t seconds);
  /// A PUT of that many bytes, which the hooks give. They are never given again: a transfer that
  /// would need that fails.
  void SendBody(int64_t bytes);

  /// A URL that the library would read otherwise than it is written (it ends at a zero byte) is
  /// refused. So are headers without end, and an answer that ends within them, which the library
  /// takes for a whole one. Rethrows what a hook has thrown.
  [[nodiscard]] TransferResult Perform(const std::string& url);
  /// Of the answer; 0 without one.
  [[nodiscard]] long Status() const;
  /// A header of the last answer; empty without it.
  [[nodiscard]] std::string Header(const char* name) const;

 private:
  static size_t OnBody(char* data, size_t, size_t size, void* self);
  static size_t OnSend(char* buffer, size_t, size_t room, void* self);
  static size_t OnHeader(char* line, size_t, size_t size, void* self);
  static int OnProgress(void* self, curl_off_t expected, curl_off_t received, curl_off_t,
                        curl_off_t sent);
  template <class Call>
  bool Guarded(Call call);
  CURLcode Run();
  TransferResult Judge(CURLcode code, const char* words) const;

  TransferHooks& hooks_;
  CURLM* const multi_;
  bool usable_ = true;
  size_t header_bytes_ = 0;
  bool headers_end_ = true;
  const CurlHandle handle_;  // last: its end may call what is above
};

}  // namespace varnel::service
