#include "service/agent/tcp_probe.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <utility>
#include <vector>

#include "utils/last_error.h"
#include "utils/owned.h"
#include "utils/thread.h"

namespace varnel::service {
namespace {

constexpr const char* kTag = "MA_AGENT";
constexpr std::chrono::milliseconds kLook{100};
constexpr int kMaxLookUps = 3;
constexpr size_t kMaxAddresses = 4;

using Addresses = utils::Owned<addrinfo, freeaddrinfo>;
using Deadline = std::chrono::steady_clock::time_point;

std::string WordsOf(int error) {
  return std::error_code(error, std::generic_category()).message();
}

/// Connections that are being made; the first one that stands is enough.
class Attempts {
 public:
  explicit Attempts(const addrinfo* addresses) {
    for (; addresses != nullptr && fds_.size() < kMaxAddresses; addresses = addresses->ai_next)
      Begin(*addresses);
  }

  bool AllFailed() const { return fds_.empty(); }
  bool OneStands() const { return stands_; }
  const std::string& Problem() const { return problem_; }

  /// False when the wait itself failed.
  bool Wait(std::chrono::milliseconds limit) {
    std::vector<pollfd> polled;
    polled.reserve(fds_.size());
    for (const auto& fd : fds_) polled.push_back({fd.Get(), POLLOUT, 0});
    if (::poll(polled.data(), polled.size(), static_cast<int>(limit.count())) < 0)
      return errno == EINTR;
    for (size_t i = polled.size(); i-- > 0;)
      if (polled[i].revents != 0) Judge(i);
    return true;
  }

 private:
  void Begin(const addrinfo& address) {
    utils::UniqueFd fd(::socket(address.ai_family,
                                address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                address.ai_protocol));
    if (fd && ::connect(fd.Get(), address.ai_addr, address.ai_addrlen) == 0) {
      stands_ = true;
    } else if (fd && errno == EINPROGRESS) {
      fds_.push_back(std::move(fd));
    } else {
      problem_ = "TCP connection failed: " + WordsOf(errno);
    }
  }

  void Judge(size_t i) {
    int error = 0;
    socklen_t size = sizeof(error);
    if (::getsockopt(fds_[i].Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
      problem_ = "getsockopt(SO_ERROR) failed: " + WordsOf(errno);
    } else if (error == 0) {
      stands_ = true;
    } else {
      problem_ = "TCP connection failed: " + WordsOf(error);
    }
    fds_.erase(fds_.begin() + static_cast<std::ptrdiff_t>(i));
  }

  std::vector<utils::UniqueFd> fds_;
  bool stands_ = false;
  std::string problem_ = "TCP connection failed (unknown error)";
};

std::string Connect(const addrinfo* addresses, const std::function<bool()>& stop) {
  Attempts attempts(addresses);
  const Deadline deadline = std::chrono::steady_clock::now() + TcpProbe::kConnectTimeout;
  while (!attempts.OneStands()) {
    if (attempts.AllFailed()) return attempts.Problem();
    if (stop() || std::chrono::steady_clock::now() >= deadline) {
      return "TCP connection timed out (" + std::to_string(TcpProbe::kConnectTimeout.count()) +
             "s) — firewall or routing issue?";
    }
    if (!attempts.Wait(kLook)) return "select() error: " + WordsOf(errno);
  }
  return {};
}

}  // namespace

/// What a look-up found, or why it did not.
struct TcpProbe::LookUp {
  Addresses addresses;
  std::string problem;
};

struct TcpProbe::Running {
  std::atomic<int> count{0};
};

TcpProbe::TcpProbe(std::function<bool()> stop)
    : stop_(std::move(stop)), running_(std::make_shared<Running>()) {}

std::shared_ptr<TcpProbe::LookUp> TcpProbe::Resolve(const std::string& host,
                                                    const std::string& port) const {
  if (running_->count >= kMaxLookUps) return nullptr;
  ++running_->count;
  const std::shared_ptr<void> place(nullptr, [running = running_](void*) { --running->count; });
  auto promise = std::make_shared<std::promise<std::shared_ptr<LookUp>>>();
  auto found = promise->get_future();
  utils::SpawnGuarded("agent-lookup", kTag, [place, promise, host, port] {
    auto look_up = std::make_shared<LookUp>();
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int code = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &list);
    if (code != 0) look_up->problem = ::gai_strerror(code);
    look_up->addresses.reset(list);
    promise->set_value(std::move(look_up));
  }).detach();
  const Deadline deadline = std::chrono::steady_clock::now() + kLookUpTimeout;
  while (found.wait_for(kLook) != std::future_status::ready)
    if (stop_() || std::chrono::steady_clock::now() >= deadline) return nullptr;
  return found.get();
}

ProbeResult TcpProbe::operator()(const std::string& host, const std::string& port) const {
  const auto look_up = Resolve(host, port);
  const std::string problem = look_up ? look_up->problem : "the name server does not answer";
  if (!problem.empty()) return {"DNS resolution failed: " + problem, problem};
  return {Connect(look_up->addresses.get(), stop_), {}};
}

}  // namespace varnel::service
