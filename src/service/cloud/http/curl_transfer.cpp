#include "service/cloud/http/curl_transfer.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "utils/log.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "HTTP";
constexpr size_t kMaxHeaderBytes = size_t{64} << 10U;

bool IsPrintable(const std::string& url) {
  return std::none_of(url.begin(), url.end(),
                      [](char c) { return static_cast<unsigned char>(c) <= ' ' || c == '\x7f'; });
}

/// Reads along with the headers of an answer.
struct HeaderWatch {
  size_t bytes = 0;
  bool whole = true;

  static size_t Take(char* line, size_t, size_t size, void* watch) {
    auto& self = *static_cast<HeaderWatch*>(watch);
    self.bytes += size;
    self.whole = std::string_view(line, size) == "\r\n" || std::string_view(line, size) == "\n";
    return self.TooLong() ? CURL_WRITEFUNC_ERROR : size;
  }
  bool TooLong() const { return bytes > kMaxHeaderBytes; }
};

}  // namespace

void InitCurl() {
  if (const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK)
    VLOG_ERROR(kTag, "curl cannot be initialised: {}", curl_easy_strerror(code));
}

ConnectionShare::ConnectionShare() : share_(curl_share_init()) {
  for (const int kind : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_DNS})
    curl_share_setopt(share_.get(), CURLSHOPT_SHARE, kind);
}

CurlHandle NewTransfer(const ConnectionShare& share, const char* protocols) {
  CurlHandle handle(curl_easy_init());
  if (!handle) return handle;
  curl_easy_setopt(handle.get(), CURLOPT_SHARE, share.Handle());
  curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(handle.get(), CURLOPT_PROTOCOLS_STR, protocols);
  curl_easy_setopt(handle.get(), CURLOPT_QUICK_EXIT, 1L);
  return handle;
}

TransferResult Perform(CURL* handle, const std::string& url) {
  if (!IsPrintable(url)) return {CURLE_URL_MALFORMAT, curl_easy_strerror(CURLE_URL_MALFORMAT)};
  std::array<char, CURL_ERROR_SIZE> words{};
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, words.data());
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  HeaderWatch headers;
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, HeaderWatch::Take);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &headers);
  const CURLcode code = curl_easy_perform(handle);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
  if (headers.TooLong()) return {CURLE_WRITE_ERROR, "the headers are too long"};
  long status = 0;  // that of a file is none
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (code == CURLE_OK && status != 0 && !headers.whole)
    return {CURLE_PARTIAL_FILE, "the answer ends within its headers"};
  if (code == CURLE_OK) return {code, {}};
  return {code, words[0] != '\0' ? words.data() : curl_easy_strerror(code)};
}

}  // namespace varnel::service
