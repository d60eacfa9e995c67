#pragma once

#include <filesystem>
#include <ios>
#include <nlohmann/json.hpp>
#include <vector>

namespace varnel::board {

/// The whole lines of a file that another program appends to; empty while there is none.
/// @param from where the look begins; moves to where the next one goes on
std::vector<nlohmann::json> JsonLines(const std::filesystem::path& file, std::streamoff& from);

}  // namespace varnel::board
