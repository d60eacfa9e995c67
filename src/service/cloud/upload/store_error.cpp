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

std::string Unescaped(const std::string& value) {
  int size = 0;
  const utils::Owned<char, curl_free> text(
      curl_easy_unescape(nullptr, value.c_str(), static_cast<int>(value.size()), &size));
  return text ? std::string(text.get(), static_cast<size_t>(size)) : std::string();
}

/// The values in the query, each also as it is meant.
std::string SecretsOf(const std::string& url) {
  std::string secrets;
  for (size_t at = url.find_first_of("?&"); at != url.npos; at = url.find('&', at + 1)) {
    const size_t value = std::min(url.find('=', at), url.size());
    const std::string text = url.substr(value, url.find('&', value) - value);
    secrets += text + '\n' + Unescaped(text) + '\n';
  }
  return secrets;
}

std::string WithoutQuotes(const std::string& text, const std::string& url) {
  const std::string secrets = SecretsOf(url);
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
  return utils::LogText(WithoutQuotes(text, url), kMaxText);
}

}  // namespace varnel::service
