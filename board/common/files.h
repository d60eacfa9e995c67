#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace varnel::board {

/// The whole content; empty when the file cannot be read.
std::string ReadFile(const std::filesystem::path& path);
/// Replaces the file in one step, so that no reader sees half of it. False when that failed.
bool ReplaceFile(const std::filesystem::path& path, const std::string& content);
/// Replaces a file that has several writers by what `edit` makes of its content. False when that
/// failed.
bool EditFile(const std::filesystem::path& path,
              const std::function<std::string(const std::string&)>& edit);

}  // namespace varnel::board
