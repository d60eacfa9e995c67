#include "utils/thread.h"

#include <pthread.h>

namespace varnel::utils {
namespace {

constexpr size_t kMaxNameLength = 15;

}  // namespace

BlockTerminationSignals::BlockTerminationSignals() {
  sigset_t termination;
  sigemptyset(&termination);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
    sigaddset(&termination, signal);
  }
  pthread_sigmask(SIG_BLOCK, &termination, &before_);
}

BlockTerminationSignals::~BlockTerminationSignals() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void SetThreadName(const std::string& name) {
  pthread_setname_np(pthread_self(), name.substr(0, kMaxNameLength).c_str());
}

}  // namespace varnel::utils
