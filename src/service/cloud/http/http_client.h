#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "service/cloud/http/curl_transfer.h"
#include "utils/clock.h"
#include "utils/secret.h"

namespace varnel::service {

/// Lines of the form "Name: value".
using HttpHeaders = std::vector<std::string>;

struct HttpSettings {
  int32_t timeout_s = 15;         ///< of a whole request; 0 or less: none
  int32_t connect_timeout_s = 5;  ///< below 1: 10
  bool verify_peer = true;
  std::string client_certificate{};          ///< PEM file; empty: none
  std::string client_key{};                  ///< PEM file; empty: none
  utils::SharedSecret bearer_token{};        ///< null or empty: none
  HttpHeaders headers{};                     ///< of every request, after the authorization
  size_t max_body_bytes = size_t{8} << 20U;  ///< of an answer
  /// A POST goes over a new connection: over one that was kept and dies meanwhile the library sends
  /// it a second time.
  bool post_once = false;
};

/// What holds for one request of many.
struct RequestOptions {
  TransferStop stop{};    ///< ends it, besides that of the client
  bool log = true;        ///< whether its success is worth a line of the log
  int32_t timeout_s = 0;  ///< above 0: instead of that of the settings
  bool is_last = false;   ///< goes out though the client is stopped; its own stop ends it
};

struct HttpResponse {
  long status = 0;  ///< 0: there was none
  std::string body{};
  int64_t elapsed_ms = 0;
};

/// HTTP and HTTPS requests, one after another over connections that are kept; each call returns
/// when its answer is whole or it has failed, and none throws for a failure of the transport.
/// Thread-safe.
class HttpClient {
 public:
  /// @param stop ends the requests of this client; called by their threads
  explicit HttpClient(HttpSettings settings = {}, TransferStop stop = nullptr,
                      utils::Clock& clock = utils::SystemClock::Instance());

  /// A null document is sent as "{}".
  /// @param bearer_token instead of that of the settings, for all three
  [[nodiscard]] HttpResponse Post(const std::string& url, const nlohmann::json& document,
                                  const HttpHeaders& headers = {},
                                  const utils::SharedSecret& bearer_token = nullptr,
                                  const RequestOptions& options = {});
  [[nodiscard]] HttpResponse PostRaw(const std::string& url, const std::string& body,
                                     const std::string& content_type,
                                     const HttpHeaders& headers = {},
                                     const utils::SharedSecret& bearer_token = nullptr);
  /// @param params an object; its members become the query
  [[nodiscard]] HttpResponse Get(const std::string& url, const nlohmann::json& params,
                                 const HttpHeaders& headers = {},
                                 const utils::SharedSecret& bearer_token = nullptr);

 private:
  struct Request {
    const char* name;        ///< in log lines
    const std::string& url;  ///< the tag in log lines is that of the URL without the query
    const std::string& query;
    const std::string* body;  ///< null: a GET
    HttpHeaders headers;
    const utils::SharedSecret& bearer_token;
    RequestOptions options{};
  };
  class Receiver;

  HttpResponse Send(const Request& request);
  TransferResult Exchange(const Request& request, HttpResponse& response);
  bool SetHeaders(Transfer& transfer, const Request& request, CurlHeaders& lines) const;
  void Apply(Transfer& transfer) const;

  const HttpSettings settings_;
  const TransferStop stop_;
  utils::Clock& clock_;
  ConnectionShare connections_;
};

}  // namespace varnel::service
