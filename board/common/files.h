#pragma once

#include <filesystem>
#include <string>

namespace varnel::board {

/// The whole content; empty when the file cannot be read.
std::string ReadFile(const std::filesystem::path& path);
/// Replaces the file in one step, so that no reader sees half of it. False when that failed.
bool ReplaceFile(const std::filesystem::path& path, const std::string& content);

}  // namespace varnel::board
