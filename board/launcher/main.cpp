// varnel-board: boots and drives virtual boards. See docs/virtual-board.md.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "virtual_board/common/process.h"
#include "virtual_board/launcher/enter.h"
#include "virtual_board/launcher/launcher.h"
#include "virtual_board/launcher/supervisor.h"

namespace {

using namespace varnel::board;
using namespace std::chrono_literals;
using Words = std::vector<std::string>;

constexpr const char* kUsage = R"(Usage:
  varnel-board boot DIR [--camera mipi|usb] [--daemon PROGRAM] [--no-daemon] [--no-broker] [--no-npu]
                        [--foreground] [--bind HOST INSIDE]... [--setenv NAME VALUE]...
                        [--cloud DIR] [--device-key ec|rsa] [--clock]
      --cloud        joins the cloud that runs in that directory
      --device-key   the kind of key that a new board gets
      --clock        the daemon's clock is ahead by the seconds in run/varnel-board/clock-offset
  varnel-board exec DIR COMMAND...           runs a command inside the board
  varnel-board net DIR COMMAND...            runs a command of the host on the board's network
  varnel-board start-daemon DIR [ARGUMENT...]
  varnel-board signal-daemon DIR SIGNAL
  varnel-board wait-daemon DIR               waits for its end; ends with its status, 128 + signal if killed
  varnel-board start-broker DIR
  varnel-board kill-broker DIR [SIGNAL]      and waits for its end, unless it is STOP or CONT
  varnel-board run-service DIR NAME COMMAND...     another program, watched like the daemon; log/NAME.log
  varnel-board signal-service DIR NAME SIGNAL
  varnel-board status DIR
  varnel-board stop DIR
  varnel-board cloud DIR                     a cloud for any number of boards; prints "ready", and runs until a
                                             signal or its parent's end. DIR/faults, DIR/journal.jsonl
  varnel-board tell-cloud DIR COMMAND...     status, device SN, bind SN USER NAME, unbind SN, lock SN REGION,
                                             unlock SN, revoke SN, revoke-all SN, token-life S, certificate-life S,
                                             kill-broker [SIGNAL], start-broker, restart-broker, take-over SN,
                                             publish FILE [JSON], unpublish, url-life S
)";

int Usage() {
  std::fputs(kUsage, stderr);
  return 2;
}

/// "9", "KILL" and "SIGKILL".
int SignalNumber(const std::string& word) {
  for (int number = 1; number < 32; ++number) {
    const std::string name = ::sigabbrev_np(number);
    if (word == std::to_string(number) || word == name || word == "SIG" + name) return number;
  }
  throw std::invalid_argument("unknown signal " + word);
}

nlohmann::json Ask(const Layout& layout, const Words& request,
                   std::chrono::milliseconds limit = 10s) {
  const auto answer = ControlClient(layout).Call(request, limit);
  if (!answer) throw std::runtime_error("no board runs in " + layout.Root().string());
  if (!answer->value("ok", false)) throw std::runtime_error(answer->value("error", "refused"));
  return *answer;
}

[[noreturn]] void Become(const Words& command) {
  ::execvp(command[0].c_str(), ArgumentPointers(command).data());
  throw std::runtime_error(command[0] + ": " + std::strerror(errno));
}

pid_t PidOf(const Layout& layout) {
  const pid_t pid = ControlClient(layout).HostPid();
  if (pid == 0) throw std::runtime_error("no board runs in " + layout.Root().string());
  return pid;
}

int Exec(const Layout& layout, const Words& command) {
  if (command.empty()) return Usage();
  Become(EnterCommand(layout, PidOf(layout), command));
}

int Net(const Layout& layout, const Words& command) {
  if (command.empty()) return Usage();
  Become(EnterNetworkCommand(PidOf(layout), command));
}

int StartDaemon(const Layout& layout, const Words& arguments) {
  Words request = {"start", "daemon"};
  request.insert(request.end(), arguments.begin(), arguments.end());
  Ask(layout, request);
  return 0;
}

int SignalService(const Layout& layout, const Words& arguments) {
  if (arguments.size() != 2) return Usage();
  Ask(layout, {"signal", arguments[0], std::to_string(SignalNumber(arguments[1]))});
  return 0;
}

int SignalDaemon(const Layout& layout, const Words& arguments) {
  return arguments.size() == 1 ? SignalService(layout, {"daemon", arguments[0]}) : Usage();
}

int RunService(const Layout& layout, const Words& arguments) {
  if (arguments.size() < 2) return Usage();
  Words request = {"run"};
  request.insert(request.end(), arguments.begin(), arguments.end());
  Ask(layout, request);
  return 0;
}

nlohmann::json AwaitEnd(const Layout& layout, const std::string& service) {
  return Ask(layout, {"wait", service}, 24h).at("services").at(service);
}

int WaitDaemon(const Layout& layout, const Words&) {
  const auto daemon = AwaitEnd(layout, "daemon");
  return daemon.contains("signal") ? 128 + daemon["signal"].get<int>() : daemon.value("status", 0);
}

int StartBroker(const Layout& layout, const Words&) {
  Ask(layout, {"start", "broker"});
  return AwaitBroker(layout, 10s) ? 0 : 1;
}

int KillBroker(const Layout& layout, const Words& arguments) {
  const int number = SignalNumber(arguments.empty() ? "KILL" : arguments[0]);
  Ask(layout, {"signal", "broker", std::to_string(number)});
  if (number != SIGSTOP && number != SIGCONT) AwaitEnd(layout, "broker");
  return 0;
}

int PrintStatus(const Layout& layout, const Words&) {
  const auto answer = Ask(layout, {"status"});
  std::cout << "board running, first process " << PidOf(layout) << "\n";
  for (const auto& [name, state] : answer.at("services").items()) {
    std::cout << name;
    for (const auto& [key, value] : state.items()) {
      std::cout << ' ' << (key == "state" ? "" : key + " ")
                << (value.is_string() ? value.get<std::string>() : value.dump());
    }
    std::cout << "\n";
  }
  return 0;
}

int StopBoard(const Layout& layout, const Words&) {
  PidOf(layout);
  return Stop(layout) ? 0 : 1;
}

int TellCloud(const Layout& layout, Words words) {
  if (words.empty()) return Usage();
  // The cloud looks for files from where it runs.
  if (words[0] == "publish" && words.size() > 1) words[1] = std::filesystem::absolute(words[1]);
  const auto answer = ControlClient(CloudFiles(layout.Root())).Call(words, 30s);
  if (!answer) throw std::runtime_error("no cloud runs in " + layout.Root().string());
  std::cout << answer->dump(2) << "\n";
  return answer->value("ok", false) ? 0 : 1;
}

int RunCloud(const Layout& layout, const Words&) {
  BecomeCloud(layout.Root());
}

using Verb = std::function<int(const Layout&, const Words&)>;
const std::map<std::string, Verb>& Verbs() {
  static const std::map<std::string, Verb> verbs = {
      {"exec", Exec},
      {"net", Net},
      {"start-daemon", StartDaemon},
      {"signal-daemon", SignalDaemon},
      {"wait-daemon", WaitDaemon},
      {"start-broker", StartBroker},
      {"kill-broker", KillBroker},
      {"run-service", RunService},
      {"signal-service", SignalService},
      {"status", PrintStatus},
      {"stop", StopBoard},
      {"cloud", RunCloud},
      {"tell-cloud", TellCloud},
  };
  return verbs;
}

int Run(const Words& words) {
  if (words.size() == 1 && words[0] == "init") ::_exit(Supervisor().Run());
  if (words.size() == 1 && words[0] == "--help") {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (words.size() < 2) return Usage();
  if (words[0] == "boot") {
    Boot(ParseBootOptions({words.begin() + 1, words.end()}));
    return 0;
  }
  const auto verb = Verbs().find(words[0]);
  if (verb == Verbs().end()) return Usage();
  return verb->second(Layout(words[1]), {words.begin() + 2, words.end()});
}

}  // namespace

int main(int argc, char** argv) try {
  return Run({argv + 1, argv + argc});
} catch (const std::exception& error) {
  std::fprintf(stderr, "varnel-board: %s\n", error.what());
  return 1;
}
