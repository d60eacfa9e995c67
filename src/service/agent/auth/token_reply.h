#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "utils/secret.h"

namespace varnel::service {

/// What a device may do in the cloud, and what it gets the next one with.
struct TokenPair {
  utils::SharedSecret access{};
  utils::SharedSecret refresh{};
};

enum class [[nodiscard]] TokenResult{kOk, kRegionLocked, kFailed};

/// A part of a form.
struct FormField {
  std::string_view name;
  std::string_view value;
};

/// RFC 7578 with the boundary of kTokenContentType. The values must not contain it.
[[nodiscard]] std::string FormBody(const std::vector<FormField>& fields);
inline constexpr const char* kTokenContentType =
    "multipart/form-data; boundary=----WebKitFormBoundary7MA4YWxkTrZu0gW";

/// The reply to a device grant. What is wrong with it is logged; `tokens` is as it was then.
TokenResult ReadGrantReply(const std::string& text, TokenPair& tokens);

/// The reply to a refresh grant; the same.
TokenResult ReadRefreshReply(const std::string& text, TokenPair& tokens);

}  // namespace varnel::service
