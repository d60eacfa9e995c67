#include "replay/merge.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>

#include "replay/report.h"
#include "replay/report_json.h"
#include "replay/scratch_directory.h"
#include "replay/terminal.h"

namespace varnel::replay {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

/// A part of the replay, as its job left it.
struct Part {
  fs::path folder;
  Json report;  ///< without "pictures"
  Shard shard;

  [[nodiscard]] fs::path File() const { return folder / "report.json"; }
};

[[noreturn]] void Refuse(const std::string& why) {
  throw std::runtime_error(why);
}

/// What all parts have in common; where a file was does not matter.
struct Common {
  const char* member;
  const char* what;
};
constexpr std::array<Common, 9> kCommon{{{"algorithm", "another algorithm"},
                                         {"mode", "other prints"},
                                         {"program", "another build of this program"},
                                         {"runtime", "another runtime"},
                                         {"networks", "other networks"},
                                         {"thresholds", "other thresholds"},
                                         {"verify_thresholds", "other thresholds"},
                                         {"picture_list", "another list of pictures"},
                                         {"labels_file", "other labels"}}};

/// With its members sorted: their order says nothing.
nlohmann::json WithoutPlace(const Json& member) {
  nlohmann::json json = member;
  if (json.is_object()) json.erase("file");
  return json;
}

Part ReadPart(const fs::path& folder) {
  Part part{folder, {}, {}};
  part.report = ReadReport(part.File(), [](const Json&) {});
  if (!part.report.contains("shard")) Refuse(part.File().string() + ": no report of a shard");
  const Json& shard = part.report.at("shard");
  part.shard = {shard.at("index").get<size_t>(), shard.at("count").get<size_t>()};
  if (part.report.at("interrupted").get<bool>())
    Refuse(part.File().string() + ": its job was interrupted, some pictures are not judged");
  return part;
}

void CheckCommon(const Part& part, const Part& first) {
  for (const Common& common : kCommon) {
    const nlohmann::json own = WithoutPlace(part.report.at(common.member));
    const nlohmann::json expected = WithoutPlace(first.report.at(common.member));
    if (own != expected) {
      Refuse(fmt::format("{} was judged by, or of, {} than {}: {}, not {}", part.File().string(),
                         common.what, first.File().string(), own.dump(), expected.dump()));
    }
  }
}

/// @param parts sorted by their numbers
void CheckNumbers(const std::vector<Part>& parts) {
  const size_t count = parts.front().shard.count;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (parts[i].shard.count != count) {
      Refuse(fmt::format("{} is one of {} shards, {} one of {}", parts[i].File().string(),
                         parts[i].shard.count, parts.front().File().string(), count));
    }
    if (i > 0 && parts[i].shard.index == parts[i - 1].shard.index) {
      Refuse(fmt::format("shard {} of {} is there twice: {} and {}", parts[i].shard.index, count,
                         parts[i - 1].File().string(), parts[i].File().string()));
    }
  }
  size_t wanted = 1;
  for (const Part& part : parts) wanted += part.shard.index == wanted ? 1 : 0;
  if (wanted <= count) Refuse(fmt::format("shard {} of {} is missing", wanted, count));
}

std::vector<Part> ReadParts(const Options& options) {
  std::vector<Part> parts;
  for (const fs::path& folder : options.shards) {
    std::error_code none;
    if (fs::equivalent(folder, options.out, none))
      Refuse("--out is the folder of a shard, whose report would be lost: " + folder.string());
    parts.push_back(ReadPart(folder));
  }
  std::sort(parts.begin(), parts.end(),
            [](const Part& a, const Part& b) { return a.shard.index < b.shard.index; });
  CheckNumbers(parts);
  for (const Part& part : parts) CheckCommon(part, parts.front());
  return parts;
}

Json HeadOf(const std::vector<Part>& parts) {
  Json head = parts.front().report;
  for (const char* tail : {"shard", "interrupted", "totals", "network", "decision", "sweep",
                           "verify_sweep", "labelled_but_not_judged", "labels_of_no_class"}) {
    head.erase(tail);
  }
  for (const Part& part : parts) head["date"] = std::min(head.at("date"), part.report.at("date"));
  return head;
}

/// Puts a picture to its new place without ever showing half of it.
std::error_code Gather(const fs::path& from, const fs::path& to, const fs::path& scratch) {
  std::error_code error;
  fs::create_directories(to.parent_path(), error);
  fs::remove(to, error);
  fs::create_hard_link(from, to, error);
  if (!error) return error;
  fs::copy_file(from, scratch / "picture", fs::copy_options::overwrite_existing, error);
  if (!error) fs::rename(scratch / "picture", to, error);
  return error;
}

/// A report that says otherwise is not this program's.
bool IsAnnotated(const fs::path& place) {
  return *place.begin() == "annotated" && place.lexically_normal() == place;
}

/// Takes over one part's pictures into the whole report.
class PartMover {
 public:
  PartMover(const fs::path& out, Report& report, Totals& totals)
      : out_(out), scratch_(out / "annotated"), report_(report), totals_(totals) {}

  void Move(const Part& part) {
    static_cast<void>(ReadReport(part.File(), [&](const Json& picture) { Take(part, picture); }));
  }
  [[nodiscard]] size_t Lost() const { return lost_; }

 private:
  void Take(const Part& part, const Json& picture) {
    report_.AddPicture(picture);
    if (picture.at("code") == 0) totals_.times.push_back(picture.at("milliseconds").get<double>());
    if (picture.at("annotated").is_null()) return;
    const fs::path place = picture.at("annotated").get<std::string>();
    if (!IsAnnotated(place) || Gather(part.folder / place, out_ / place, scratch_.Path())) ++lost_;
  }

  const fs::path out_;
  const ScratchDirectory scratch_;
  Report& report_;
  Totals& totals_;
  size_t lost_ = 0;
};

bool MergeParts(const std::vector<Part>& parts, const Algorithm& algorithm, const fs::path& out) {
  Totals totals(algorithm.labels.size());
  std::optional<Scoring> scoring;
  if (parts.front().report.contains("network")) scoring.emplace(algorithm);
  for (const Part& part : parts) {
    totals.Add(ParseTotals(part.report.at("totals"), algorithm));
    if (scoring) scoring->Add(ParseScoring(part.report, algorithm));
  }
  fs::create_directories(out / "annotated");
  RemoveReport(out);
  Report report(algorithm, out, HeadOf(parts), stdout);
  PartMover mover(out, report, totals);
  for (const Part& part : parts) mover.Move(part);
  const bool good = report.Finish(totals, scoring, false);
  if (mover.Lost() > 0)
    Complain(std::to_string(mover.Lost()) + " annotated pictures of shards cannot be taken over");
  return good && mover.Lost() == 0;
}

}  // namespace

bool Merge(const Options& options) {
  try {
    const std::vector<Part> parts = ReadParts(options);
    const Algorithm* algorithm =
        FindAlgorithm(parts.front().report.at("algorithm").get<std::string>());
    if (algorithm == nullptr) Refuse(parts.front().File().string() + ": of no algorithm");
    return MergeParts(parts, *algorithm, options.out);
  } catch (const Json::exception& e) {
    Refuse(std::string("a shard's report.json is not as it was written: ") + e.what());
  }
}

}  // namespace varnel::replay
