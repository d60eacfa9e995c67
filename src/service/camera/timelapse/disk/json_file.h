#pragma once

#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

namespace varnel::service {

/// What one of our own JSON files held.
struct JsonFile {
  /// kUnreadable: what it holds is not known, for example for want of descriptors.
  enum class State { kRead, kMissing, kIllegal, kUnreadable };
  State state = State::kMissing;
  nlohmann::json value;
};

/// No file of ours is larger.
inline constexpr size_t kMaxJsonFileBytes = size_t{64} << 20U;

/// Reads a file; what is wrong with its JSON is logged under `tag`. One that is no regular file or
/// too large counts as illegal.
[[nodiscard]] JsonFile ReadJsonFile(const char* tag, const std::filesystem::path& file);

/// For a file; bytes that are no UTF-8 are replaced.
[[nodiscard]] std::string ToText(const nlohmann::json& value);

}  // namespace varnel::service
