#include "replay/diverted_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace varnel::replay {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::FILE* CopyOfStandardOutput() {
  const int copy = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (copy < 0) Fail("standard output");
  std::FILE* file = ::fdopen(copy, "w");
  if (file != nullptr) return file;
  ::close(copy);
  Fail("standard output");
}

}  // namespace

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

}  // namespace varnel::replay
