#include "replay/terminal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <initializer_list>
#include <system_error>

#include "utils/last_error.h"
#include "utils/log_text.h"

namespace varnel::replay {

namespace {

constexpr const char* kNewLine = "\r\033[K";

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(utils::LastError(), what);
}

std::FILE* CopyOfStandardOutput() {
  const int copy = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (copy < 0) Fail("standard output");
  std::FILE* file = ::fdopen(copy, "w");
  if (file != nullptr) return file;
  ::close(copy);
  Fail("standard output");
}

volatile std::sig_atomic_t interrupted = 0;

void Note(int /*signal*/) {
  interrupted = 1;
}

}  // namespace

void Complain(const std::string& text) {
  std::fputs(("varnel-replay: " + text + "\n").c_str(), stderr);
}

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

DivertedOutput::DivertedOutput(const std::filesystem::path& messages) {
  std::fflush(stdout);
  people_.reset(CopyOfStandardOutput());
  const int file = ::open(messages.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file < 0) Fail(messages.string());
  const int moved = ::dup2(file, STDOUT_FILENO);
  ::close(file);
  if (moved < 0) Fail(messages.string());
}

DivertedOutput::~DivertedOutput() {
  std::fflush(stdout);
  std::fflush(people_.get());
  ::dup2(::fileno(people_.get()), STDOUT_FILENO);
}

void CatchInterruption() {
  struct sigaction action {};
  action.sa_handler = Note;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

bool Interrupted() {
  return interrupted != 0;
}

}  // namespace varnel::replay
