#pragma once

#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "replay/algorithm.h"
#include "replay/picture_set.h"

namespace varnel::replay {

/// What a replay is asked for.
struct Options {
  std::filesystem::path folder;
  std::filesystem::path models;   ///< empty: the board's
  std::filesystem::path runtime;  ///< empty: the board's
  std::filesystem::path labels;   ///< empty: without
  std::filesystem::path out = "replay-report";
  const Algorithm* algorithm = FindAlgorithm("noodle");
  std::map<std::string, double> thresholds;  ///< by label
  bool prints = false;                       ///< each folder below `folder` is a print
  bool independent = false;                  ///< each picture is a print of its own
  Shard shard;
  bool merge = false;
  std::vector<std::filesystem::path> shards;  ///< to be merged: where their reports went
};

struct CommandLine {
  Options options;
  bool help = false;
  std::string error;  ///< for the user; empty when the line is good
};

/// @param arguments without the program's name
[[nodiscard]] CommandLine ParseCommandLine(std::span<const char* const> arguments);

extern const char* const kUsage;

}  // namespace varnel::replay
