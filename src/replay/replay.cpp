#include "replay/replay.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>

#include "replay/diverted_output.h"
#include "replay/evaluation.h"
#include "replay/interruption.h"
#include "replay/picture_folder.h"
#include "replay/picture_judge.h"
#include "replay/progress.h"
#include "replay/report_file.h"
#include "replay/report_json.h"
#include "replay/report_text.h"
#include "replay/sweep_plot.h"
#include "replay/totals.h"
#include "service/analysis/rknn_library.h"
#include "utils/atomic_file.h"
#include "utils/logger.h"

namespace varnel::replay {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr size_t kLogMegabytes = 10;
constexpr size_t kLogFiles = 2;

void Complain(const std::string& text) {
  std::fputs(("varnel-replay: " + text + "\n").c_str(), stderr);
}

/// Never unloaded: the runtime may have threads of its own when the process ends.
const service::RknnLibrary& Runtime(const fs::path& file) {
  if (file.empty()) return service::RknnLibrary::Board();
  static const auto& library = *new service::RknnLibrary({fs::absolute(file).string()});
  return library;
}

std::string StatusOf(size_t index, size_t count) {
  if (index == 0) return "first";
  return index + 1 == count ? "last" : "";
}

std::optional<Labels> ReadLabelsFile(const fs::path& file, std::string& error) {
  std::ifstream lines(file);
  std::optional<Labels> labels;
  if (lines) {
    labels = ReadLabels(lines, error);
  } else {
    error = std::generic_category().message(errno);
  }
  if (!labels) error = file.string() + ": " + error;
  return labels;
}

/// One replay on its way.
class Run {
 public:
  Run(const Options& options, Input input, PictureJudge& judge, std::FILE* out)
      : options_(options),
        out_(out),
        classes_(options.algorithm->labels),
        pictures_(std::move(input.pictures)),
        judge_(judge),
        report_(options.out / "report.json", Head()),
        totals_(classes_.size()) {
    if (input.labels) evaluation_.emplace(classes_, std::move(*input.labels));
  }

  void JudgeAll() {
    Progress progress(stderr, ::isatty(STDERR_FILENO) == 1, pictures_.size());
    for (size_t i = 0; i < pictures_.size() && !Interrupted(); ++i) {
      const Judgement judgement = judge_.Judge(pictures_[i], StatusOf(i, pictures_.size()));
      progress.Add(judgement);
      totals_.Add(judgement);
      if (evaluation_) evaluation_->Add(judgement);
      report_.AddPicture(PictureJson(judgement, classes_));
    }
  }

  /// Whether there is nothing to complain about.
  bool Finish() {
    std::fputs(TotalsText(totals_, classes_).c_str(), out_);
    if (evaluation_) std::fputs(EvaluationText(*evaluation_).c_str(), out_);
    bool good = Written(options_.out / "report.json", report_.Finish(Tail()));
    if (evaluation_) {
      const fs::path plot = options_.out / "sweep.svg";
      good &= Written(
          plot, utils::WriteFileAtomically(
                    plot, SweepPlot(evaluation_->NetworkSweep(), classes_, judge_.Thresholds())));
    }
    return good & IsComplete() & (std::fflush(out_) == 0);
  }

 private:
  [[nodiscard]] Json Head() const {
    return {{"algorithm", options_.algorithm->name},
            {"folder", options_.folder.string()},
            {"models", judge_.Models().string()},
            {"thresholds", ThresholdsJson(judge_.Thresholds())}};
  }

  [[nodiscard]] Json Tail() const {
    Json tail = {{"interrupted", Interrupted()}, {"totals", TotalsJson(totals_, classes_)}};
    if (!evaluation_) return tail;
    tail["network"] = ScoresJson(*evaluation_, evaluation_->Network());
    tail["decision"] = ScoresJson(*evaluation_, evaluation_->Decision());
    tail["sweep"] = SweepJson(*evaluation_);
    tail["labelled_but_not_judged"] = evaluation_->Unseen();
    tail["labels_of_no_class"] = evaluation_->OtherLabels();
    return tail;
  }

  bool Written(const fs::path& file, const std::error_code& error) const {
    if (error) {
      Complain(file.string() + ": " + error.message());
    } else {
      std::fprintf(out_, "%s\n", file.c_str());
    }
    return !error;
  }

  [[nodiscard]] bool IsComplete() const {
    if (totals_.NotAnnotated() > 0)
      Complain(std::to_string(totals_.NotAnnotated()) + " annotated pictures cannot be written");
    const auto seen = static_cast<size_t>(totals_.Judged() + totals_.Failed());
    if (seen < pictures_.size()) Complain("interrupted");
    return totals_.NotAnnotated() == 0 && static_cast<size_t>(totals_.Judged()) == pictures_.size();
  }

  const Options& options_;
  std::FILE* const out_;
  const std::vector<std::string>& classes_;
  const std::vector<std::string> pictures_;
  PictureJudge& judge_;
  ReportFile report_;
  Totals totals_;
  std::optional<Evaluation> evaluation_;
};

}  // namespace

std::optional<Input> ReadInput(const Options& options, std::string& error) {
  Input input;
  std::error_code failure;
  input.pictures = ListPictures(options.folder, failure);
  if (failure) {
    error = options.folder.string() + ": " + failure.message();
    return std::nullopt;
  }
  if (input.pictures.empty()) {
    error = options.folder.string() + ": no picture (.jpg, .jpeg) in it";
    return std::nullopt;
  }
  if (options.labels.empty()) return input;
  input.labels = ReadLabelsFile(options.labels, error);
  if (!input.labels) return std::nullopt;
  return input;
}

bool Replay(const Options& options, Input input) {
  const fs::path annotated = options.out / "annotated";
  fs::create_directories(annotated);
  if (fs::equivalent(annotated, options.folder)) {
    Complain("annotated pictures would replace those of the folder");
    return false;
  }
  // What lies there afterwards is of this replay.
  for (const char* name : {"report.json", "sweep.svg"}) fs::remove(options.out / name);
  const utils::Logger logger("varnel-replay", (options.out / "replay.log").string(), kLogMegabytes,
                             kLogFiles);
  const DivertedOutput output(options.out / "messages.log");
  PictureJudge judge(options, annotated, Runtime(options.runtime));
  if (const std::string problem = judge.Problem(); !problem.empty()) {
    Complain(problem);
    return false;
  }
  Run run(options, std::move(input), judge, output.ForPeople());
  run.JudgeAll();
  return run.Finish();
}

}  // namespace varnel::replay
