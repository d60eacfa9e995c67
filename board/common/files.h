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

/// A new directory for temporary files, its name begins with this. Throws std::runtime_error.
std::filesystem::path NewTemporaryDirectory(const std::string& name);

}  // namespace varnel::board
