#include "service/cloud/http/curl_transfer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <limits>
#include <string_view>
#include <utility>

#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "HTTP";
constexpr size_t kMaxHeaderBytes = size_t{64} << 10U;
/// The library counts milliseconds in an int.
constexpr int64_t kMostSeconds = std::numeric_limits<int>::max() / 1000;
/// How soon a transfer in which nothing moves asks whether it is to end.
constexpr int kLookMs = 200;

std::atomic<bool>& IsBroken() {
  static std::atomic<bool> broken = false;
  return broken;
}

bool IsPrintable(const std::string& url) {
  return std::none_of(url.begin(), url.end(),
                      [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; });
}

CURL* NewHandle() {
  return IsBroken() ? nullptr : curl_easy_init();
}

TransferResult Failed(CURLcode code, const char* words) {
  return {code, words != nullptr ? words : curl_easy_strerror(code)};
}

}  // namespace

void InitCurl() {
  const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  IsBroken() = code != CURLE_OK;
  if (IsBroken()) VLOG_ERROR(kTag, "curl cannot be initialised: {}", curl_easy_strerror(code));
}

bool AppendHeader(CurlHeaders& lines, const char* line) {
  curl_slist* longer = curl_slist_append(lines.get(), line);
  if (longer == nullptr) return false;
  (void)lines.release();
  lines.reset(longer);
  return true;
}

ConnectionShare::ConnectionShare() : share_(curl_share_init()), multi_(curl_multi_init()) {
  if (multi_) curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, 1L);
  for (const int kind : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_DNS})
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, kind);
}

Transfer::Transfer(const ConnectionShare& share, const char* protocols, TransferHooks& hooks)
    : hooks_(hooks), multi_(share.Runner()), handle_(NewHandle()) {
  Set(CURLOPT_SHARE, share.Handle());
  Set(CURLOPT_MAXCONNECTS, 1L);  // kept by the share when it is not used
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_PROXY, "");
  Set(CURLOPT_PROTOCOLS_STR, protocols);
  Set(CURLOPT_QUICK_EXIT, 1L);
  Set(CURLOPT_WRITEFUNCTION, OnBody);
  Set(CURLOPT_WRITEDATA, this);
  Set(CURLOPT_HEADERFUNCTION, OnHeader);
  Set(CURLOPT_HEADERDATA, this);
  Set(CURLOPT_NOPROGRESS, 0L);
  Set(CURLOPT_XFERINFOFUNCTION, OnProgress);
  Set(CURLOPT_XFERINFODATA, this);
}

void Transfer::SetSeconds(CURLoption option, int64_t seconds) {
  Set(option, static_cast<long>(std::min(seconds, kMostSeconds)));
}

void Transfer::SendBody(int64_t bytes) {
  Set(CURLOPT_UPLOAD, 1L);
  Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(bytes));
  Set(CURLOPT_READFUNCTION, OnSend);
  Set(CURLOPT_READDATA, this);
}

template <class Call>
bool Transfer::Guarded(Call call) {
  try {
    return call();
  } catch (...) {
    hooks_.thrown_ = std::current_exception();
    return false;
  }
}

size_t Transfer::OnBody(char* data, size_t, size_t size, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  const bool taken = transfer.Guarded([&] { return transfer.hooks_.Take(data, size); });
  return taken ? size : CURL_WRITEFUNC_ERROR;
}

size_t Transfer::OnSend(char* buffer, size_t, size_t room, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  std::optional<size_t> given;
  const bool goes_on =
      transfer.Guarded([&] { return (given = transfer.hooks_.Give(buffer, room)).has_value(); });
  return goes_on ? *given : CURL_READFUNC_ABORT;
}

size_t Transfer::OnHeader(char* text, size_t, size_t size, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  const std::string_view line(text, size);
  transfer.header_bytes_ += size;
  // A trailer of a chunked body comes after their end.
  if (line.starts_with("HTTP/")) transfer.headers_end_ = false;
  if (line == "\r\n" || line == "\n") transfer.headers_end_ = true;
  const bool taken = transfer.Guarded([&] {
    transfer.hooks_.Header(line);
    return transfer.header_bytes_ <= kMaxHeaderBytes;
  });
  return taken ? size : CURL_WRITEFUNC_ERROR;
}

int Transfer::OnProgress(void* self, curl_off_t expected, curl_off_t received, curl_off_t,
                         curl_off_t sent) {
  auto& transfer = *static_cast<Transfer*>(self);
  return transfer.Guarded([&] { return transfer.hooks_.GoOn({expected, received, sent}); }) ? 0 : 1;
}

TransferResult Transfer::Perform(const std::string& url) {
  if (!handle_ || !usable_) return Failed(CURLE_FAILED_INIT, nullptr);
  if (!IsPrintable(url)) return Failed(CURLE_URL_MALFORMAT, nullptr);
  std::array<char, CURL_ERROR_SIZE> words{};
  curl_easy_setopt(handle_.get(), CURLOPT_ERRORBUFFER, words.data());
  curl_easy_setopt(handle_.get(), CURLOPT_URL, url.c_str());
  const CURLcode code = multi_ != nullptr ? Run() : CURLE_OUT_OF_MEMORY;
  curl_easy_setopt(handle_.get(), CURLOPT_ERRORBUFFER, nullptr);
  if (hooks_.thrown_) std::rethrow_exception(std::exchange(hooks_.thrown_, nullptr));
  return Judge(code, words[0] != '\0' ? words.data() : nullptr);
}

/// By itself the library would look once a second only.
CURLcode Transfer::Run() {
  CURLMcode state = curl_multi_add_handle(multi_, handle_.get());
  if (state != CURLM_OK) return CURLE_FAILED_INIT;
  int running = 1;
  while (state == CURLM_OK && running > 0) {
    state = curl_multi_perform(multi_, &running);
    if (state == CURLM_OK && running > 0)
      state = curl_multi_poll(multi_, nullptr, 0, kLookMs, nullptr);
  }
  CURLcode code = CURLE_OUT_OF_MEMORY;
  int waiting = 0;
  if (const CURLMsg* end = curl_multi_info_read(multi_, &waiting);
      end != nullptr && end->msg == CURLMSG_DONE) {
    code = end->data.result;
  }
  curl_multi_remove_handle(multi_, handle_.get());
  return code;
}

TransferResult Transfer::Judge(CURLcode code, const char* words) const {
  if (header_bytes_ > kMaxHeaderBytes) return Failed(CURLE_WRITE_ERROR, "the headers are too long");
  if (code == CURLE_OK && !headers_end_)
    return Failed(CURLE_PARTIAL_FILE, "the answer ends within its headers");
  if (code == CURLE_OK) return {code, {}};
  return Failed(code, words);
}

long Transfer::Status() const {
  long status = 0;
  if (handle_) curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

std::string Transfer::Header(const char* name) const {
  curl_header* header = nullptr;
  const bool found =
      handle_ && curl_easy_header(handle_.get(), name, 0, CURLH_HEADER, -1, &header) == CURLHE_OK;
  return found ? header->value : "";
}

}  // namespace varnel::service
