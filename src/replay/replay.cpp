#include "replay/replay.h"

#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "replay/evaluation.h"
#include "replay/picture_judge.h"
#include "replay/provenance.h"
#include "replay/report.h"
#include "replay/report_json.h"
#include "replay/scores.h"
#include "replay/terminal.h"
#include "service/analysis/network/rknn_library.h"
#include "utils/atomic_file.h"
#include "utils/logger.h"

namespace varnel::replay {
namespace {

namespace fs = std::filesystem;

constexpr size_t kLogMegabytes = 10;
constexpr size_t kLogFiles = 2;

/// Never unloaded: the runtime may have threads of its own when the process ends.
const service::RknnLibrary& Runtime(const fs::path& file) {
  if (file.empty()) return service::RknnLibrary::Board();
  static const auto& library = *new service::RknnLibrary({fs::absolute(file).string()});
  return library;
}

/// In one go: labels may come through a pipe.
void ReadLabelsFile(const fs::path& file, Input& input, std::string& error) {
  std::string text;
  input.labels_digest = utils::DigestOf(file, [&text](std::string_view piece) { text += piece; });
  std::istringstream lines(std::move(text));
  input.labels = ReadLabels(lines, error);
  if (!input.labels) error = file.string() + ": " + error;
}

/// What is labelled in the pictures that other shards judge is none of this one's business.
void KeepOwn(const std::vector<std::string>& pictures, const std::vector<Turn>& own,
             Labels& labels) {
  Labels kept;
  for (const Turn& turn : own)
    if (auto node = labels.extract(turn.picture)) kept.insert(std::move(node));
  for (const std::string& picture : pictures) labels.erase(picture);
  labels.merge(kept);
}

bool JudgeAll(const std::vector<Turn>& turns, PictureJudge& judge, Report& report, Totals& totals,
              std::optional<Evaluation>& evaluation) {
  Progress progress(stderr, ::isatty(STDERR_FILENO) == 1, turns.size());
  for (const Turn& turn : turns) {
    if (Interrupted()) return false;
    const Judgement judgement = judge.Judge(turn);
    progress.Add(judgement);
    totals.Add(judgement);
    if (evaluation) evaluation->Add(judgement);
    report.AddPicture(PictureJson(judgement, judge.Classes()));
  }
  return true;
}

}  // namespace

std::optional<Input> ReadInput(const Options& options, std::string& error) {
  Input input;
  std::error_code failure;
  input.list = ListPictures(options.folder, options.prints, failure);
  if (failure) {
    error = options.folder.string() + ": " + failure.message();
    return std::nullopt;
  }
  if (input.list.pictures.empty()) {
    error = options.folder.string() + ": no picture (.jpg, .jpeg) in " +
            (options.prints ? "the folders below it" : "it");
    return std::nullopt;
  }
  input.turns = TurnsOf(options.shard, TurnsOf(input.list.pictures, options.independent));
  if (options.labels.empty()) return input;
  ReadLabelsFile(options.labels, input, error);
  if (!input.labels) return std::nullopt;
  KeepOwn(input.list.pictures, input.turns, *input.labels);
  return input;
}

bool Replay(const Options& options, Input input) {
  const fs::path annotated = options.out / "annotated";
  fs::create_directories(annotated);
  if (fs::equivalent(annotated, options.folder) ||
      (options.prints && fs::equivalent(options.out, options.folder))) {
    Complain("annotated pictures would replace those of the folder, or be among them");
    return false;
  }
  RemoveReport(options.out);
  const utils::Logger logger("varnel-replay", (options.out / "replay.log").string(), kLogMegabytes,
                             kLogFiles);
  const DivertedOutput output(options.out / "messages.log");
  const service::RknnLibrary& library = Runtime(options.runtime);
  PictureJudge judge(options, annotated, library);
  if (const std::string problem = judge.Problem(); !problem.empty()) {
    Complain(problem);
    return false;
  }
  Report report(*options.algorithm, options.out, HeadJson(options, input, judge, library),
                output.ForPeople());
  Totals totals(options.algorithm->labels.size());
  std::optional<Evaluation> evaluation;
  if (input.labels) evaluation.emplace(*options.algorithm, std::move(*input.labels));
  const bool whole = JudgeAll(input.turns, judge, report, totals, evaluation);
  std::optional<Scoring> scoring;
  if (evaluation) scoring = evaluation->Result();
  return report.Finish(totals, scoring, !whole);
}

}  // namespace varnel::replay
