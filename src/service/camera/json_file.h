#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

namespace varnel::service {

/// What one of our own JSON files held.
struct JsonFile {
  enum class State { kRead, kMissing, kIllegal };
  State state = State::kMissing;
  nlohmann::json value;
};

/// Reads a file of at most 64 MiB; what is wrong with its JSON is logged under `tag`. One that is
/// no regular file, too large or unreadable counts as illegal.
[[nodiscard]] JsonFile ReadJsonFile(const char* tag, const std::filesystem::path& file);

/// For a file; bytes that are no UTF-8 are replaced.
[[nodiscard]] std::string ToText(const nlohmann::json& value);

}  // namespace varnel::service
