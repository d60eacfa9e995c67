#include "replay/interruption.h"

#include <csignal>
#include <initializer_list>

namespace varnel::replay {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void Note(int /*signal*/) {
  interrupted = 1;
}

}  // namespace

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
