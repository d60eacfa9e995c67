#include "service/agent/auth/broker_access.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <nlohmann/json.hpp>

#include "service/agent/auth/aes.h"
#include "service/agent/auth/certificate.h"
#include "utils/base64.h"
#include "utils/log.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr const char* kTag = "MA_AUTH";
constexpr std::string_view kCertificateEnd = "-----END CERTIFICATE-----";
constexpr size_t kMaxName = 255;  ///< of a host, and more than any client id has

std::nullopt_t Fail(const char* why) {
  VLOG_ERROR(kTag, "{}", why);
  return std::nullopt;
}

/// Null when the member is no string.
const std::string* TextIn(const json& data, const char* name) {
  const auto found = data.find(name);
  return found != data.end() && found->is_string() ? found->get_ptr<const std::string*>() : nullptr;
}

/// Brokers have their own ways to name clients.
bool IsClientId(const std::string& text) {
  return !text.empty() && text.size() <= kMaxName &&
         std::none_of(text.begin(), text.end(),
                      [](unsigned char c) { return c < ' ' || c == 0x7f; });
}

/// A name or an address; empty is judged later.
bool IsHost(const std::string& text) {
  return text.size() <= kMaxName && std::all_of(text.begin(), text.end(), [](unsigned char c) {
           return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
         });
}

/// Nothing for what is no port. An empty text is 0.
std::optional<uint16_t> PortIn(const json& data) {
  const auto found = data.find("port");
  if (found == data.end()) return std::nullopt;
  const std::string text = found->is_string()            ? found->get<std::string>()
                           : found->is_number_unsigned() ? found->dump()
                                                         : "x";
  uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  const bool whole = error == std::errc{} && end == text.data() + text.size() && port != 0;
  return whole || text.empty() ? std::optional(port) : std::nullopt;
}

std::optional<utils::SecretString> Open(const std::string& text, const CredentialKey& key) {
  if (text.starts_with("-----BEGIN ")) {
    return key.allows_clear ? std::optional<utils::SecretString>(std::in_place, text)
                            : std::nullopt;
  }
  const auto encrypted = utils::DecodeBase64(text);
  if (!encrypted || !key.aes) return std::nullopt;
  return AesDecrypt(*key.aes, *encrypted);
}

/// Parts the device's certificate from what follows it.
bool SplitCertificates(std::string_view both, BrokerAccess& access) {
  const size_t end = both.find(kCertificateEnd);
  if (end == both.npos) return false;
  const size_t second = both.find("-----BEGIN CERTIFICATE-----", end);
  if (second == both.npos) return false;
  access.certificate = std::string(both.substr(0, end + kCertificateEnd.size())) + '\n';
  access.root_ca = both.substr(second);
  return IsCertificate(access.certificate) && IsCertificate(access.root_ca);
}

}  // namespace

std::optional<BrokerAccess> ReadBrokerAccess(const json& reply, const CredentialKey& key) {
  const auto data = reply.find("data");
  if (data == reply.end() || !data->is_object())
    return Fail("no 'data' field in MQTT certs content!");
  const std::string* client_id = TextIn(*data, "clientId");
  if (client_id == nullptr || !IsClientId(*client_id)) return Fail("invalid clientid!");
  const std::string* endpoint = TextIn(*data, "endpoint");
  if (endpoint == nullptr || !IsHost(*endpoint)) return Fail("invalid endpoint!");
  const auto port = PortIn(*data);
  if (!port) return Fail("invalid port!");
  if (endpoint->empty() || *port == 0) return Fail("endpoint/clientid/port is empty!");
  const std::string* certificates = TextIn(*data, "secretId");
  const auto both = certificates != nullptr ? Open(*certificates, key) : std::nullopt;
  if (!both) return Fail("invalid client CA");
  BrokerAccess access{*endpoint, *port, *client_id, {}, {}};
  if (!SplitCertificates(both->Text(), access)) return Fail("invalid data in CA content!");
  const std::string* key_text = TextIn(*data, "secretKey");
  auto client_key = key_text != nullptr ? Open(*key_text, key) : std::nullopt;
  if (!client_key || !KeyMatches(access.certificate, client_key->Text()))
    return Fail("invalid client key");
  access.key = std::move(*client_key);
  return access;
}

}  // namespace varnel::service
