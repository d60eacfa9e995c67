#include "virtual_board/launcher/supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "virtual_board/common/files.h"
#include "virtual_board/launcher/control.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::board {

using nlohmann::json;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr auto kServiceStopLimit = 5s;

Fd WatchSignals() {
  sigset_t watched;
  ::sigemptyset(&watched);
  for (const int number : {SIGCHLD, SIGTERM, SIGINT}) ::sigaddset(&watched, number);
  ::sigprocmask(SIG_BLOCK, &watched, nullptr);
  return Fd(::signalfd(-1, &watched, SFD_NONBLOCK | SFD_CLOEXEC));
}

Fd ListenForSystemLog() {
  Fd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address{AF_UNIX, "/dev/log"};
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  return ::bind(socket.Get(), generic, sizeof address) == 0 ? std::move(socket) : Fd();
}

void Send(const Fd& client, const json& answer) {
  const std::string text = answer.dump();
  ::send(client.Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

std::vector<std::string> ParseWords(const std::string& packet) {
  const json words = json::parse(packet, nullptr, false);
  const bool valid = words.is_array() && std::all_of(words.begin(), words.end(),
                                                     [](const json& w) { return w.is_string(); });
  return valid ? words.get<std::vector<std::string>>() : std::vector<std::string>();
}

/// What was put in the place of single programs.
std::vector<std::pair<std::string, Fd>> ReplacedPrograms() {
  std::vector<std::pair<std::string, Fd>> replaced;
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string path;
    for (int field = 0; field < 5; ++field) fields >> path;
    if (path.starts_with("/usr/bin/"))
      replaced.emplace_back(path, Fd(::open(path.c_str(), O_PATH | O_CLOEXEC)));
  }
  return replaced;
}

/// Programs that no machine of ours has, before those of /usr/bin. A kernel that refuses leaves the
/// board without them.
void MountStandIns() {
  const auto replaced = ReplacedPrograms();  // the new layers do not have them
  const std::string layers = std::string("lowerdir=") + inside::kStandIns + ":/usr/bin";
  if (::mount("overlay", "/usr/bin", "overlay", MS_RDONLY, layers.c_str()) != 0)
    return std::perror("varnel-board: no stand-ins");
  for (const auto& [path, fd] : replaced) {
    const std::string held = "/proc/self/fd/" + std::to_string(fd.Get());
    if (::mount(held.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0)
      std::perror(path.c_str());
  }
}

}  // namespace

int Supervisor::Run() {
  MountStandIns();
  if (!SetUp()) {
    std::perror("varnel-board: the board's sockets");
    return 1;
  }
  LoadServices();
  while (!stopping_) Step(-1);
  StopServices();
  return 0;
}

bool Supervisor::SetUp() {
  signals_ = WatchSignals();
  system_log_ = ListenForSystemLog();
  control_ = ListenForControl();
  return signals_ && system_log_ && control_;
}

void Supervisor::LoadServices() {
  const json settings = json::parse(ReadFile(inside::kServices));
  for (const json& entry : settings.at("services")) {
    services_.emplace_back(entry.at("name"), entry.at("command"),
                           entry.value("environment", Service::Environment()));
    if (entry.at("start")) services_.back().Start({});
  }
}

void Supervisor::Step(int timeout_ms) {
  std::vector<pollfd> watched = {
      {signals_.Get(), POLLIN, 0}, {system_log_.Get(), POLLIN, 0}, {control_.Get(), POLLIN, 0}};
  for (const Fd& client : clients_) watched.push_back({client.Get(), POLLIN, 0});
  if (::poll(watched.data(), watched.size(), timeout_ms) <= 0) return;
  std::vector<int> readable;
  for (size_t i = 3; i < watched.size(); ++i) {
    if (watched[i].revents != 0) readable.push_back(watched[i].fd);
  }
  if (watched[0].revents != 0) TakeSignals();
  if (watched[1].revents != 0) TakeLogMessage();
  ServeClients(readable);
  if (watched[2].revents != 0) AcceptClient();
}

void Supervisor::TakeSignals() {
  signalfd_siginfo signal{};
  while (::read(signals_.Get(), &signal, sizeof signal) == sizeof signal) {
    if (signal.ssi_signo != SIGCHLD) stopping_ = true;
  }
  BuryChildren();
  AnswerWaiters();
}

void Supervisor::BuryChildren() {
  int status = 0;
  for (pid_t pid = ::waitpid(-1, &status, WNOHANG); pid > 0;
       pid = ::waitpid(-1, &status, WNOHANG)) {
    for (Service& service : services_) {
      if (service.Pid() == pid) service.Ended(status);
    }
  }
}

void Supervisor::AnswerWaiters() {
  const auto ended = [&](const Waiter& waiter) {
    const Service* service = Find(waiter.service);
    if (service != nullptr && service->Running()) return false;
    Send(waiter.client, Status());
    return true;
  };
  waiters_.erase(std::remove_if(waiters_.begin(), waiters_.end(), ended), waiters_.end());
}

void Supervisor::TakeLogMessage() const {
  std::string message(kMaximumControlPacket, '\0');
  const ssize_t size = ::recv(system_log_.Get(), message.data(), message.size(), MSG_DONTWAIT);
  if (size <= 0) return;
  message.resize(static_cast<size_t>(size));
  message.resize(message.find_last_not_of(std::string("\n\0", 2)) + 1);
  std::ofstream(std::string(inside::kLog) + "/syslog", std::ios::app) << message + "\n";
}

void Supervisor::AcceptClient() {
  Fd client(::accept4(control_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  if (client) clients_.push_back(std::move(client));
}

void Supervisor::ServeClients(const std::vector<int>& readable) {
  const auto gone = [&](Fd& client) {
    const bool spoke = std::find(readable.begin(), readable.end(), client.Get()) != readable.end();
    return spoke && !ServeClient(client);
  };
  clients_.erase(std::remove_if(clients_.begin(), clients_.end(), gone), clients_.end());
}

bool Supervisor::ServeClient(Fd& client) {
  std::string packet(kMaximumControlPacket, '\0');
  const ssize_t size = ::recv(client.Get(), packet.data(), packet.size(), MSG_DONTWAIT);
  if (size <= 0) return false;
  packet.resize(static_cast<size_t>(size));
  const auto words = ParseWords(packet);
  if (words.size() == 2 && words[0] == "wait") {
    waiters_.push_back({Fd(::fcntl(client.Get(), F_DUPFD_CLOEXEC, 0)), words[1]});
    AnswerWaiters();
  } else {
    Send(client, Handle(words));
  }
  return true;
}

json Supervisor::Handle(const std::vector<std::string>& words) {
  const std::string error = Obey(words);
  json answer = Status();
  answer["ok"] = error.empty();
  if (!error.empty()) answer["error"] = error;
  return answer;
}

std::string Supervisor::Obey(const std::vector<std::string>& words) {
  const std::string verb = words.empty() ? "" : words[0];
  if (verb == "stop") stopping_ = true;
  if (verb == "status" || verb == "stop") return "";
  if (verb == "run" && words.size() > 2) {
    return RunService(words[1], {words.begin() + 2, words.end()});
  }
  Service* service = words.size() < 2 ? nullptr : Find(words[1]);
  if (service == nullptr) return "no such request or service";
  if (verb == "start") {
    return service->Start({words.begin() + 2, words.end()}) ? "" : "it runs already";
  }
  if (verb != "signal" || words.size() != 3) return "no such request";
  return service->Signal(std::atoi(words[2].c_str())) ? "" : "it does not run";
}

std::string Supervisor::RunService(const std::string& name,
                                   const std::vector<std::string>& command) {
  Service* service = Find(name);
  if (service != nullptr && service->Running()) return "it runs already";
  if (service == nullptr) service = &services_.emplace_back(name, command);
  *service = Service(name, command);
  return service->Start({}) ? "" : "it cannot be started";
}

json Supervisor::Status() const {
  json services = json::object();
  for (const Service& service : services_) services[service.Name()] = service.Describe();
  return {{"ok", true}, {"services", services}};
}

Service* Supervisor::Find(const std::string& name) {
  const auto service = std::find_if(services_.begin(), services_.end(),
                                    [&](const Service& s) { return s.Name() == name; });
  return service == services_.end() ? nullptr : &*service;
}

bool Supervisor::EndService(Service& service, int signal, std::chrono::milliseconds limit) {
  const auto deadline = steady_clock::now() + limit;
  if (service.Running() && !service.Signal(signal)) return false;
  while (service.Running() && steady_clock::now() < deadline) Step(50);
  return !service.Running();
}

void Supervisor::StopServices() {
  for (auto service = services_.rbegin(); service != services_.rend(); ++service) {
    if (!EndService(*service, SIGTERM, kServiceStopLimit)) EndService(*service, SIGKILL, 1s);
  }
}

}  // namespace varnel::board
