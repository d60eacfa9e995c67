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
constexpr int32_t kDefaultConnectTimeoutS = 10;
const std::string kNoQuery;

/// The library sends a header without a value only if a semicolon stands in the place of its colon.
std::string AsTheLibraryWants(std::string header) {
  const size_t value = header.find_first_not_of(" \t", header.find(':') + 1);
  if (header.find(':') != header.npos && value == header.npos)
    header.replace(header.find(':'), header.npos, ";");
  return header;
}

}  // namespace

/// Takes a body, up to a limit.
class HttpClient::Receiver : public TransferHooks {
 public:
  Receiver(std::string& body, size_t max_bytes, const TransferStop& stop,
           const RequestOptions& options)
      : body_(body), max_bytes_(max_bytes), stop_(stop), options_(options) {}

  bool GoOn(const TransferCount&) override {
    return (options_.is_last || !stop_ || !stop_()) && !(options_.stop && options_.stop());
  }
  bool Take(const char* data, size_t size) override {
    too_long_ = size > max_bytes_ - body_.size();
    if (!too_long_) body_.append(data, size);
    return !too_long_;
  }
  bool TooLong() const { return too_long_; }

 private:
  std::string& body_;
  const size_t max_bytes_;
  const TransferStop& stop_;
  const RequestOptions& options_;
  bool too_long_ = false;
};

HttpClient::HttpClient(HttpSettings settings, TransferStop stop, utils::Clock& clock)
    : settings_(std::move(settings)), stop_(std::move(stop)), clock_(clock) {}

HttpResponse HttpClient::Post(const std::string& url, const nlohmann::json& document,
                              const HttpHeaders& headers, const utils::SharedSecret& bearer_token,
                              const RequestOptions& options) {
  const std::string body = BodyOf(document);
  Request request{"POST", url, kNoQuery, &body, headers, bearer_token, options};
  request.headers.emplace_back("Content-Type: application/json");
  return Send(request);
}

HttpResponse HttpClient::PostRaw(const std::string& url, const std::string& body,
                                 const std::string& content_type, const HttpHeaders& headers,
                                 const utils::SharedSecret& bearer_token) {
  if (content_type.empty()) {
    VLOG_ERROR(kTag, "PostRaw: content_type must not be empty");
    return {};
  }
  Request request{"POST(raw)", url, kNoQuery, &body, headers, bearer_token};
  request.headers.push_back("Content-Type: " + content_type);
  return Send(request);
}

HttpResponse HttpClient::Get(const std::string& url, const nlohmann::json& params,
                             const HttpHeaders& headers, const utils::SharedSecret& bearer_token) {
  if (!params.is_object()) {
    VLOG_ERROR(kTag, "Get: params must be a JSON object, got {}", params.type_name());
    return {};
  }
  const std::optional<std::string> query = QueryOf(params);
  if (!query) return {};
  return Send(
      {"GET", url, query->empty() ? kNoQuery : "?" + *query, nullptr, headers, bearer_token});
}

HttpResponse HttpClient::Send(const Request& request) {
  HttpResponse response;
  const utils::MutexLock turn(connections_.Turn());
  const auto start = clock_.Now();
  const TransferResult result = Exchange(request, response);
  response.elapsed_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(clock_.Now() - start).count();
  const std::string tag = UrlTag(request.url);
  if (result.code != CURLE_OK) {
    VLOG_ERROR(kTag, "{} [{}] failed after {}ms: {} (http_code=0)", request.name, tag,
               response.elapsed_ms, utils::LogText(result.problem));
    return {.elapsed_ms = response.elapsed_ms};
  }
  VLOG_AT(request.options.log ? spdlog::level::info : spdlog::level::debug, kTag,
          "{} [{}] -> HTTP {}, body_len={}, {}ms", request.name, tag, response.status,
          response.body.size(), response.elapsed_ms);
  return response;
}

TransferResult HttpClient::Exchange(const Request& request, HttpResponse& response) {
  CurlHeaders lines;
  Receiver receiver(response.body, settings_.max_body_bytes, stop_, request.options);
  if (!receiver.GoOn({}))
    return {CURLE_ABORTED_BY_CALLBACK, curl_easy_strerror(CURLE_ABORTED_BY_CALLBACK)};
  Transfer transfer(connections_, "http,https", receiver);
  Apply(transfer);
  if (request.options.timeout_s > 0)
    transfer.SetSeconds(CURLOPT_TIMEOUT, request.options.timeout_s);
  if (!SetHeaders(transfer, request, lines))
    return {CURLE_BAD_FUNCTION_ARGUMENT, "a header cannot be sent"};
  if (request.body != nullptr) {
    transfer.Set(CURLOPT_POST, 1L);
    transfer.Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
    transfer.Set(CURLOPT_POSTFIELDS, request.body->data());
    transfer.Set(CURLOPT_FRESH_CONNECT, settings_.post_once ? 1L : 0L);
  }
  TransferResult result = transfer.Perform(request.url + request.query);
  if (receiver.TooLong()) result.problem = "the body is too long";
  response.status = transfer.Status();
  return result;
}

bool HttpClient::SetHeaders(Transfer& transfer, const Request& request, CurlHeaders& lines) const {
  // Without it the library waits for a second before it sends a large body.
  bool all = AppendHeader(lines, "Expect:");
  const auto& secret = request.bearer_token ? request.bearer_token : settings_.bearer_token;
  if (const std::string_view token = secret ? secret->Text() : ""; !token.empty()) {
    constexpr std::string_view kName = "Authorization: Bearer ";
    utils::SecretString line(kName.size() + token.size() + 1);
    std::copy(token.begin(), token.end(), std::copy(kName.begin(), kName.end(), line.Data()));
    all = all && IsHeaderLine(token) && AppendHeader(lines, line.Data());
  }
  for (const HttpHeaders* headers : {&settings_.headers, &request.headers}) {
    for (const std::string& header : *headers)
      all = all && IsHeaderLine(header) && AppendHeader(lines, AsTheLibraryWants(header).c_str());
  }
  transfer.Set(CURLOPT_HTTPHEADER, lines.get());
  return all;
}

void HttpClient::Apply(Transfer& transfer) const {
  transfer.Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  transfer.Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (settings_.timeout_s > 0) transfer.SetSeconds(CURLOPT_TIMEOUT, settings_.timeout_s);
  transfer.SetSeconds(CURLOPT_CONNECTTIMEOUT, settings_.connect_timeout_s < 1
                                                  ? kDefaultConnectTimeoutS
                                                  : settings_.connect_timeout_s);
  transfer.Set(CURLOPT_SSL_VERIFYPEER, settings_.verify_peer ? 1L : 0L);
  transfer.Set(CURLOPT_SSL_VERIFYHOST, settings_.verify_peer ? 2L : 0L);
  if (!settings_.client_certificate.empty())
    transfer.Set(CURLOPT_SSLCERT, settings_.client_certificate.c_str());
  if (!settings_.client_key.empty()) transfer.Set(CURLOPT_SSLKEY, settings_.client_key.c_str());
}

}  // namespace varnel::service
