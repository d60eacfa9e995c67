#include "service/cloud/http/http_client.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>

#include "service/cloud/http/http_request.h"
#include "utils/log.h"
#include "utils/log_text.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "HTTP";
constexpr long kDefaultConnectTimeoutS = 10;
const std::string kNoQuery;

/// A body, up to a limit.
struct Receiver {
  std::string& body;
  size_t max_bytes;
  bool too_long = false;

  static size_t Take(char* data, size_t, size_t size, void* receiver) {
    auto& self = *static_cast<Receiver*>(receiver);
    self.too_long = size > self.max_bytes - self.body.size();
    if (self.too_long) return CURL_WRITEFUNC_ERROR;
    self.body.append(data, size);
    return size;
  }
};

int AskForStop(void* stop, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  const auto& stopped = *static_cast<const TransferStop*>(stop);
  return stopped && stopped() ? 1 : 0;
}

bool Append(CurlHeaders& lines, const char* line) {
  curl_slist* longer = curl_slist_append(lines.get(), line);
  if (longer == nullptr) return false;
  (void)lines.release();
  lines.reset(longer);
  return true;
}

}  // namespace

HttpClient::HttpClient(HttpSettings settings, TransferStop stop, utils::Clock& clock)
    : settings_(std::move(settings)), stop_(std::move(stop)), clock_(clock) {}

HttpResponse HttpClient::Post(const std::string& url, const nlohmann::json& document,
                              const HttpHeaders& headers) {
  const std::string body = BodyOf(document);
  Request request{"POST", url, kNoQuery, &body, headers};
  request.headers.emplace_back("Content-Type: application/json");
  return Send(request);
}

HttpResponse HttpClient::PostRaw(const std::string& url, const std::string& body,
                                 const std::string& content_type, const HttpHeaders& headers) {
  if (content_type.empty()) {
    VLOG_ERROR(kTag, "PostRaw: content_type must not be empty");
    return {};
  }
  Request request{"POST(raw)", url, kNoQuery, &body, headers};
  request.headers.push_back("Content-Type: " + content_type);
  return Send(request);
}

HttpResponse HttpClient::Get(const std::string& url, const nlohmann::json& params,
                             const HttpHeaders& headers) {
  if (!params.is_object()) {
    VLOG_ERROR(kTag, "Get: params must be a JSON object, got {}", params.type_name());
    return {};
  }
  const std::optional<std::string> query = QueryOf(params);
  if (!query) return {};
  return Send({"GET", url, query->empty() ? kNoQuery : "?" + *query, nullptr, headers});
}

HttpResponse HttpClient::Send(const Request& request) {
  HttpResponse response;
  const auto turn = connections_.Turn();
  const auto start = clock_.Now();
  const TransferResult result = Transfer(request, response);
  response.elapsed_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(clock_.Now() - start).count();
  const std::string tag = UrlTag(request.url);
  if (result.code != CURLE_OK) {
    VLOG_ERROR(kTag, "{} [{}] failed after {}ms: {} (http_code=0)", request.name, tag,
               response.elapsed_ms, utils::LogText(result.problem));
    return {.elapsed_ms = response.elapsed_ms};
  }
  VLOG_INFO(kTag, "{} [{}] -> HTTP {}, body_len={}, {}ms", request.name, tag, response.status,
            response.body.size(), response.elapsed_ms);
  return response;
}

TransferResult HttpClient::Transfer(const Request& request, HttpResponse& response) {
  const CurlHandle handle = NewTransfer(connections_, "http,https");
  CurlHeaders lines;
  if (!handle) return {CURLE_OUT_OF_MEMORY, curl_easy_strerror(CURLE_OUT_OF_MEMORY)};
  Apply(handle.get());
  if (!SetHeaders(handle.get(), request.headers, lines))
    return {CURLE_BAD_FUNCTION_ARGUMENT, "a header cannot be sent"};
  if (request.body != nullptr) {
    curl_easy_setopt(handle.get(), CURLOPT_POST, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body->size()));
    curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, request.body->data());
  }
  Receiver receiver{response.body, settings_.max_body_bytes};
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, Receiver::Take);
  curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &receiver);
  TransferResult result = Perform(handle.get(), request.url + request.query);
  if (receiver.too_long) result.problem = "the body is too long";
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &response.status);
  return result;
}

bool HttpClient::SetHeaders(CURL* handle, const HttpHeaders& of_request, CurlHeaders& lines) const {
  // Without it the library waits for a second before it sends a large body.
  bool all = Append(lines, "Expect:");
  const auto secret = settings_.bearer_token ? settings_.bearer_token() : nullptr;
  if (const std::string_view token = secret ? secret->Text() : ""; !token.empty()) {
    constexpr std::string_view kName = "Authorization: Bearer ";
    utils::SecretString line(kName.size() + token.size() + 1);
    std::copy(token.begin(), token.end(), std::copy(kName.begin(), kName.end(), line.Data()));
    all = all && IsHeaderLine(token) && Append(lines, line.Data());
  }
  for (const HttpHeaders* headers : {&settings_.headers, &of_request})
    for (const std::string& header : *headers)
      all = all && IsHeaderLine(header) && Append(lines, header.c_str());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, lines.get());
  return all;
}

void HttpClient::Apply(CURL* handle) const {
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
  curl_easy_setopt(handle, CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
  if (settings_.timeout_s > 0)
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, static_cast<long>(settings_.timeout_s));
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT,
                   settings_.connect_timeout_s < 1
                       ? kDefaultConnectTimeoutS
                       : static_cast<long>(settings_.connect_timeout_s));
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, settings_.verify_peer ? 1L : 0L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, settings_.verify_peer ? 2L : 0L);
  if (!settings_.client_certificate.empty())
    curl_easy_setopt(handle, CURLOPT_SSLCERT, settings_.client_certificate.c_str());
  if (!settings_.client_key.empty())
    curl_easy_setopt(handle, CURLOPT_SSLKEY, settings_.client_key.c_str());
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, AskForStop);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &stop_);
}

}  // namespace varnel::service
