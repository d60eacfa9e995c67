#include "replay/labels.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace varnel::replay {
namespace {

using nlohmann::json;

/// Null when there is no such text.
const std::string* TextOf(const json& line, const char* key) {
  const auto found = line.find(key);
  return found == line.end() ? nullptr : found->get_ptr<const std::string*>();
}

std::optional<Box> BoxOf(const json& line) {
  const auto found = line.find("box");
  if (found == line.end() || !found->is_array() || found->size() != 4) return std::nullopt;
  if (!std::all_of(found->begin(), found->end(), [](const json& edge) { return edge.is_number(); }))
    return std::nullopt;
  const auto edges = found->get<std::array<double, 4>>();
  const Box box{edges[0], edges[1], edges[2], edges[3]};
  if (!(box.left < box.right && box.top < box.bottom)) return std::nullopt;
  return box;
}

/// What is wrong with the line; empty when it was added.
std::string AddLine(const std::string& text, Labels& labels) {
  const json line = json::parse(text, nullptr, false);
  if (!line.is_object()) return "this is no JSON object";
  const std::string* picture = TextOf(line, "picture");
  if (picture == nullptr || picture->empty()) return "\"picture\" must be the name of a file";
  const std::string* label = TextOf(line, "label");
  if (label == nullptr || label->empty()) return "\"label\" must be a text";
  const std::optional<Box> box = BoxOf(line);
  if (!box) return "\"box\" must be [left, top, right, bottom] with left < right and top < bottom";
  labels[*picture].push_back({*label, *box});
  return {};
}

}  // namespace

std::optional<Labels> ReadLabels(std::istream& lines, std::string& error) {
  Labels labels;
  std::string text;
  for (size_t number = 1; std::getline(lines, text); ++number) {
    if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::string problem = AddLine(text, labels);
    if (problem.empty()) continue;
    error = "line " + std::to_string(number) + ": " + problem;
    return std::nullopt;
  }
  if (!lines.bad() && lines.eof()) return labels;
  error = "cannot be read";
  return std::nullopt;
}

}  // namespace varnel::replay
