#include "replay/progress.h"

#include <fmt/format.h>

#include "utils/log_text.h"

namespace varnel::replay {
namespace {

constexpr const char* kNewLine = "\r\033[K";

}  // namespace

Progress::~Progress() {
  if (!terminal_) return;
  std::fputs(kNewLine, out_);
  std::fflush(out_);
}

void Progress::Add(const Judgement& judgement) {
  // Short enough for the line of a small terminal: a wrapped one cannot be written anew.
  const std::string line =
      fmt::format("{}/{} {}: {}, {} found, {:.0f} ms", ++done_, pictures_,
                  utils::LogText(judgement.picture, terminal_ ? 30 : 160), judgement.message,
                  judgement.finds.size(), judgement.milliseconds);
  if (terminal_) std::fputs(kNewLine, out_);
  std::fputs(line.c_str(), out_);
  if (!terminal_ || !judgement.Judged()) std::fputc('\n', out_);
  std::fflush(out_);
}

}  // namespace varnel::replay
