#pragma once

#include <string>
#include <string_view>

namespace varnel::service {

/// What an object store's refusal says, fit for one log line: code and message of an XML error,
/// else the begin of the answer. Whatever of it also stands in the URL's query is masked: stores
/// quote the request that they refuse, and what signs it is a secret.
[[nodiscard]] std::string StoreErrorText(std::string_view body, const std::string& url);

}  // namespace varnel::service
