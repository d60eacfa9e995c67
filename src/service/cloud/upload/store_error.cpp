#include "service/cloud/upload/store_error.h"

#include <curl/curl.h>

#include <algorithm>

#include "utils/log_text.h"
#include "utils/owned.h"

namespace varnel::service {
namespace {

constexpr size_t kMaxText = 160;
/// As many characters in a row are no coincidence.
constexpr size_t kQuoted = 8;

/// What stands between <name> and </name>.
std::string_view Element(std::string_view xml, const std::string& name) {
  const std::string open = '<' + name + '>';
  const size_t begin = xml.find(open);
  if (begin == xml.npos) return {};
  const size_t end = xml.find("</" + name + '>', begin);
  if (end == xml.npos) return {};
  return xml.substr(begin + open.size(), end - begin - open.size());
}

std::string Unescaped(const std::string& url) {
  int size = 0;
  const utils::Owned<char, curl_free> text(
      curl_easy_unescape(nullptr, url.c_str(), static_cast<int>(url.size()), &size));
  return text ? std::string(text.get(), static_cast<size_t>(size)) : std::string();
}

std::string WithoutQuotes(std::string text, const std::string& url) {
  const std::string secrets = url + '\n' + Unescaped(url);
  std::string masked = text;
  for (size_t at = 0; at + kQuoted <= text.size(); ++at) {
    if (secrets.find(std::string_view(text).substr(at, kQuoted)) != secrets.npos)
      std::fill_n(masked.begin() + static_cast<std::ptrdiff_t>(at), kQuoted, '*');
  }
  return masked;
}

}  // namespace

std::string StoreErrorText(std::string_view body, const std::string& url) {
  std::string text(body);
  if (const std::string_view code = Element(body, "Code"); !code.empty())
    text = std::string(code) + ": " + std::string(Element(body, "Message"));
  // Cut only afterwards: the begin of a secret at the end would be too short to be found.
  text.resize(std::min(text.size(), kMaxText + kQuoted));
  return utils::LogText(WithoutQuotes(std::move(text), url), kMaxText);
}

}  // namespace varnel::service
