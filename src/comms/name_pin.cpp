#include "comms/name_pin.h"

#include <dlfcn.h>
#include <netdb.h>

#include <map>
#include <optional>

#include "utils/mutex.h"

namespace varnel::comms {
namespace {

class Pins {
 public:
  static Pins& Instance() {
    static auto* pins = new Pins;  // never destroyed: library threads may still look names up
    return *pins;
  }

  void Add(const std::string& host, const std::string& address) {
    const utils::MutexLock lock(mutex_);
    Pinned& pinned = by_host_[host];
    pinned.address = address;
    ++pinned.holders;
  }
  void Remove(const std::string& host) {
    const utils::MutexLock lock(mutex_);
    const auto pinned = by_host_.find(host);
    if (--pinned->second.holders == 0) by_host_.erase(pinned);
  }
  std::optional<std::string> Find(const char* host) {
    const utils::MutexLock lock(mutex_);
    const auto pinned = by_host_.find(host);
    return pinned == by_host_.end() ? std::nullopt : std::optional(pinned->second.address);
  }

 private:
  struct Pinned {
    std::string address;
    int holders = 0;
  };
  utils::Mutex mutex_;
  std::map<std::string, Pinned, std::less<>> by_host_ GUARDED_BY(mutex_);
};

using LookUp = decltype(&::getaddrinfo);

/// The C library's own, behind the one below.
LookUp NextLookUp() {
  static const auto next = reinterpret_cast<LookUp>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  return next;
}

}  // namespace

NamePin::NamePin(std::string host, const std::string& address) : host_(std::move(host)) {
  Pins::Instance().Add(host_, address);
}

NamePin::~NamePin() {
  Pins::Instance().Remove(host_);
}

}  // namespace varnel::comms

/// Stands before the C library's function for the whole process; the numeric address goes through
/// that one too, so that its own freeaddrinfo() frees the answer.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  const auto next = varnel::comms::NextLookUp();
  if (!next) return EAI_SYSTEM;
  const auto address = node ? varnel::comms::Pins::Instance().Find(node) : std::nullopt;
  if (!address) return next(node, service, hints, result);
  addrinfo numeric{};
  if (hints) numeric = *hints;
  numeric.ai_flags |= AI_NUMERICHOST;
  return next(address->c_str(), service, &numeric, result);
}
