#pragma once

#include <string>
#include <string_view>

namespace varnel::utils {

/// Throws std::runtime_error(text), after a log line that also holds the reason, which the text has
/// no room for.
[[noreturn]] void ThrowCryptoFailure(const std::string& text, std::string_view reason);

/// The same with the crypto library's own reason; its error queue is empty afterwards.
[[noreturn]] void ThrowCryptoFailure(const std::string& text);

}  // namespace varnel::utils
