#include "replay/turn.h"

#include <string_view>

namespace varnel::replay {
namespace {

std::string_view FolderOf(std::string_view picture) {
  const size_t slash = picture.rfind('/');
  return picture.substr(0, slash == std::string_view::npos ? 0 : slash);
}

}  // namespace

std::vector<Turn> TurnsOf(const std::vector<std::string>& pictures, bool independent) {
  const auto apart = [&](size_t before, size_t after) {
    return independent || FolderOf(pictures[before]) != FolderOf(pictures[after]);
  };
  std::vector<Turn> turns;
  for (size_t i = 0; i < pictures.size(); ++i) {
    const bool first = i == 0 || apart(i - 1, i);
    const bool last = i + 1 == pictures.size() || apart(i, i + 1);
    const char* status = last ? "last" : "";
    turns.push_back({pictures[i], first ? "first" : status});
  }
  return turns;
}

std::vector<Turn> TurnsOf(const Shard& shard, const std::vector<Turn>& turns) {
  if (shard.count == 0) return turns;
  std::vector<Turn> own;
  size_t owner = 0;
  for (size_t i = 0; i < turns.size(); ++i) {
    if (turns[i].status == "first") owner = i * shard.count / turns.size() + 1;
    if (owner == shard.index) own.push_back(turns[i]);
  }
  return own;
}

}  // namespace varnel::replay
