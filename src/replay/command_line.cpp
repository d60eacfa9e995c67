#include "replay/command_line.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <utility>

namespace varnel::replay {
namespace {

/// Takes one value, or none for an option that stands alone; the answer is what is wrong with it.
using TakeValue = std::string (*)(Options& options, const std::string& value);

template <std::filesystem::path Options::*kMember>
std::string TakePath(Options& options, const std::string& value) {
  if (value.empty()) return "needs a path";
  options.*kMember = value;
  return {};
}

template <bool Options::*kMember>
std::string TakeFlag(Options& options, const std::string& /*value*/) {
  options.*kMember = true;
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

constexpr size_t kMaxShards = 100000;

/// A whole text as a number above 0; 0 for anything else.
size_t Count(std::string_view text) {
  size_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  return error == std::errc() && end == text.data() + text.size() ? count : 0;
}

std::string TakeShard(Options& options, const std::string& value) {
  const size_t slash = value.find('/');
  if (slash == std::string::npos) return "needs i/n";
  const Shard shard{Count(value.substr(0, slash)), Count(value.substr(slash + 1))};
  if (shard.index == 0 || shard.index > shard.count || shard.count > kMaxShards)
    return "needs i/n with i from 1 to n, n at most 100000: " + value;
  options.shard = shard;
  return {};
}

struct Option {
  std::string_view name;
  TakeValue take;
  bool has_value = true;
  bool merges = false;  ///< means something beside --merge
};

constexpr std::array<Option, 10> kOptions{{
    {"--models", TakePath<&Options::models>},
    {"--runtime", TakePath<&Options::runtime>},
    {"--algorithm", TakeAlgorithm},
    {"--labels-file", TakePath<&Options::labels>},
    {"--out", TakePath<&Options::out>, true, true},
    {"--threshold", TakeThreshold},
    {"--prints", TakeFlag<&Options::prints>, false},
    {"--independent", TakeFlag<&Options::independent>, false},
    {"--shard", TakeShard},
    {"--merge", TakeFlag<&Options::merge>, false, true},
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
    } else {
      folders_.emplace_back(argument);
    }
  }

  void TakeOption(const std::string& name) {
    const auto* option = std::find_if(kOptions.begin(), kOptions.end(),
                                      [&](const Option& known) { return known.name == name; });
    if (option == kOptions.end()) {
      result_.error = "there is no option " + name;
    } else if (option->has_value && next_ == arguments_.size()) {
      result_.error = name + " needs a value";
    } else if (const std::string problem =
                   option->take(result_.options, option->has_value ? arguments_[next_++] : "");
               !problem.empty()) {
      result_.error = name + " " + problem;
    } else if (!option->merges) {
      not_for_merging_ = name;
    }
  }

  void CheckWhole() {
    const bool named =
        !folders_.empty() &&
        std::none_of(folders_.begin(), folders_.end(), std::mem_fn(&std::filesystem::path::empty));
    if (!named) {
      result_.error = "which folder?";
    } else if (result_.options.merge) {
      CheckMerge();
    } else {
      CheckReplay();
    }
  }

  void CheckMerge() {
    result_.options.shards = std::move(folders_);
    if (!not_for_merging_.empty())
      result_.error = "--merge takes no " + not_for_merging_ + ": the shards were judged with it";
  }

  void CheckReplay() {
    Options& options = result_.options;
    options.folder = folders_.front();
    if (folders_.size() > 1)
      result_.error = "one folder, please, not also \"" + folders_[1].string() + "\"";
    if (options.shard.count > 0 && !options.independent && !options.prints) {
      result_.error =
          "--shard needs --prints or --independent: the pictures of one print are judged one "
          "after the other";
    }
    CheckThresholds();
  }

  void CheckThresholds() {
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
  std::vector<std::filesystem::path> folders_;
  std::string not_for_merging_;  ///< an option that was given
  CommandLine result_;
};

}  // namespace

CommandLine ParseCommandLine(std::span<const char* const> arguments) {
  return Parser(arguments).Parse();
}

const char* const kUsage =
    R"(Usage: varnel-replay [OPTION]... FOLDER
       varnel-replay --merge [--out DIR] SHARD...

Judges the pictures of a folder (.jpg and .jpeg, in the order of their names) as
the daemon judges those of one print: the first one is "first", the last one
"last". Writes annotated pictures and report.json; with labels also how well the
network does, and the plots of its thresholds.

  --algorithm NAME         noodle (default) or beditem
  --prints                 each folder below FOLDER is a print of its own; its
                           pictures are named folder/picture
  --independent            each picture is judged as if it were a print of its
                           own: none is compared with another
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
  --shard I/N              judges only part I of N, cut between prints; all N
                           parts need the same options and a DIR each
  --merge                  makes one report, that of a run without --shard, of
                           the DIRs of all N parts

Exit status: 0 when every picture was judged, 1 when not, 2 for a wrong call.
)";

}  // namespace varnel::replay
