#include "replay/command_line.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace varnel::replay {
namespace {

/// Takes one value; the answer is what is wrong with it.
using TakeValue = std::string (*)(Options& options, const std::string& value);

template <std::filesystem::path Options::*kMember>
std::string TakePath(Options& options, const std::string& value) {
  if (value.empty()) return "needs a path";
  options.*kMember = value;
  return {};
}

std::string TakeAlgorithm(Options& options, const std::string& value) {
  const Algorithm* algorithm = FindAlgorithm(value);
  if (algorithm == nullptr) return "knows noodle and beditem, not " + value;
  options.algorithm = algorithm;
  return {};
}

std::string TakeThreshold(Options& options, const std::string& value) {
  const size_t equals = value.find('=');
  if (equals == std::string::npos || equals == 0) return "needs LABEL=VALUE";
  const std::string number = value.substr(equals + 1);
  char* end = nullptr;
  const double threshold = std::strtod(number.c_str(), &end);
  const bool whole = !number.empty() && *end == '\0';
  if (!whole || !(threshold >= 0 && threshold <= 1)) return "needs a value from 0 to 1: " + value;
  options.thresholds[value.substr(0, equals)] = threshold;
  return {};
}

struct Option {
  std::string_view name;
  TakeValue take;
};

constexpr std::array<Option, 6> kOptions{{
    {"--models", TakePath<&Options::models>},
    {"--runtime", TakePath<&Options::runtime>},
    {"--algorithm", TakeAlgorithm},
    {"--labels-file", TakePath<&Options::labels>},
    {"--out", TakePath<&Options::out>},
    {"--threshold", TakeThreshold},
}};

/// Walks over the arguments; options may stand behind the folder too.
class Parser {
 public:
  explicit Parser(std::span<const char* const> arguments) : arguments_(arguments) {}

  CommandLine Parse() {
    while (result_.error.empty() && !result_.help && next_ < arguments_.size()) Take();
    if (result_.error.empty() && !result_.help) CheckWhole();
    return std::move(result_);
  }

 private:
  void Take() {
    const std::string argument = arguments_[next_++];
    if (!only_folders_ && argument == "--") {
      only_folders_ = true;
    } else if (!only_folders_ && (argument == "--help" || argument == "-h")) {
      result_.help = true;
    } else if (!only_folders_ && argument.starts_with('-')) {
      TakeOption(argument);
    } else if (result_.options.folder.empty() && !argument.empty()) {
      result_.options.folder = argument;
    } else {
      result_.error = "one folder, please, not also \"" + argument + "\"";
    }
  }

  void TakeOption(const std::string& name) {
    const auto* option = std::find_if(kOptions.begin(), kOptions.end(),
                                      [&](const Option& known) { return known.name == name; });
    if (option == kOptions.end()) {
      result_.error = "there is no option " + name;
    } else if (next_ == arguments_.size()) {
      result_.error = name + " needs a value";
    } else if (const std::string problem = option->take(result_.options, arguments_[next_++]);
               !problem.empty()) {
      result_.error = name + " " + problem;
    }
  }

  void CheckWhole() {
    if (result_.options.folder.empty()) result_.error = "which folder?";
    const auto& labels = result_.options.algorithm->labels;
    for (const auto& [label, threshold] : result_.options.thresholds) {
      if (std::find(labels.begin(), labels.end(), label) == labels.end()) {
        result_.error =
            "--threshold: " + result_.options.algorithm->name + " has no label " + label;
      }
    }
  }

  std::span<const char* const> arguments_;
  size_t next_ = 0;
  bool only_folders_ = false;
  CommandLine result_;
};

}  // namespace

CommandLine ParseCommandLine(std::span<const char* const> arguments) {
  return Parser(arguments).Parse();
}

const char* const kUsage =
    R"(Usage: varnel-replay [OPTION]... FOLDER

Judges the pictures of a folder (.jpg and .jpeg, in the order of their names) as
the daemon judges those of one print: the first one is "first", the last one
"last". Writes annotated pictures and report.json; with labels also how well the
network does, and sweep.svg.

  --algorithm NAME         noodle (default) or beditem
  --models DIR             where the networks are; default
                           /etc/varnel/camera_service/model
  --runtime FILE           the NPU's runtime; default: the board's librknnrt.so
  --labels-file FILE       what the pictures show, one JSON object a line:
                           {"picture": "a.jpg", "label": "noodle",
                            "box": [left, top, right, bottom]}
                           a picture without a line shows nothing
  --out DIR                where the report goes; default replay-report
  --threshold LABEL=VALUE  judges this label by another threshold than the
                           network's own; may be given for each label

Exit status: 0 when every picture was judged, 1 when not, 2 for a wrong call.
)";

}  // namespace varnel::replay
