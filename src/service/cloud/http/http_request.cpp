#include "service/cloud/http/http_request.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>

#include "utils/owned.h"

namespace varnel::service {
namespace {

using nlohmann::json;

std::string TextOf(const json& value) {
  return value.is_string() ? value.get<std::string>()
                           : value.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool AppendEscaped(const std::string& text, std::string& query) {
  if (text.empty()) return true;  // the library would ask for the length of what is nothing
  const utils::Owned<char, curl_free> escaped(
      curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())));
  if (escaped) query += escaped.get();
  return escaped != nullptr;
}

}  // namespace

std::string UrlTag(const std::string& url) {
  return fmt::format("{:016x}", std::hash<std::string>{}(url));
}

std::optional<std::string> QueryOf(const json& params) {
  std::string query;
  for (const auto& [key, value] : params.items()) {
    if (!query.empty()) query += '&';
    if (!AppendEscaped(key, query)) return std::nullopt;
    query += '=';
    if (!AppendEscaped(TextOf(value), query)) return std::nullopt;
  }
  return query;
}

bool IsHeaderLine(std::string_view line) {
  return std::none_of(line.begin(), line.end(),
                      [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
}

std::string BodyOf(const json& document) {
  return document.is_null() ? "{}" : document.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace varnel::service
