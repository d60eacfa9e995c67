#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace varnel::service {

/// Stands for a URL in log lines: its standard string hash as 16 hexadecimal digits. Queries are
/// secrets, and hosts are long.
[[nodiscard]] std::string UrlTag(const std::string& url);

/// The members of an object as "key=value", escaped and joined with "&": strings without their
/// quotes, all else as its JSON text. Nothing when the library has no memory.
[[nodiscard]] std::optional<std::string> QueryOf(const nlohmann::json& params);

/// A header line can be sent as it is: nothing in it ends the line.
[[nodiscard]] bool IsHeaderLine(std::string_view line);

/// Compact; "{}" for null. What is no UTF-8 is replaced.
[[nodiscard]] std::string BodyOf(const nlohmann::json& document);

}  // namespace varnel::service
