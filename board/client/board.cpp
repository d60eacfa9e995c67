#include "virtual_board/client/board.h"

#include <signal.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "virtual_board/client/json_lines.h"
#include "virtual_board/common/files.h"
#include "virtual_board/common/process.h"
#include "virtual_board/launcher/enter.h"
#include "virtual_board/launcher/launcher.h"

namespace varnel::board {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

/// The command line that boots a board with these options.
std::vector<std::string> BootCommand(const BootOptions& options) {
  std::vector<std::string> words = {VARNEL_BOARD_PROGRAM, "boot", options.directory.string()};
  words.insert(words.end(), {"--foreground", "--camera"});
  words.emplace_back(options.camera == CameraKind::kUsb ? "usb" : "mipi");
  if (!options.daemon.empty()) words.insert(words.end(), {"--daemon", options.daemon.string()});
  if (!options.start_daemon) words.emplace_back("--no-daemon");
  if (!options.start_broker) words.emplace_back("--no-broker");
  if (!options.npu) words.emplace_back("--no-npu");
  if (options.clock) words.emplace_back("--clock");
  if (options.device_key == KeyKind::kRsa) words.insert(words.end(), {"--device-key", "rsa"});
  if (!options.cloud.empty()) words.insert(words.end(), {"--cloud", options.cloud.string()});
  for (const auto& [host, inside] : options.binds) {
    words.insert(words.end(), {"--bind", host, inside});
  }
  for (const auto& [name, value] : options.environment) {
    words.insert(words.end(), {"--setenv", name, value});
  }
  return words;
}

bool Ask(const Layout& layout, const std::vector<std::string>& request) {
  const auto answer = ControlClient(layout).Call(request);
  return answer && answer->value("ok", false);
}

}  // namespace

Board::Board(BootOptions options)
    : temporary_(options.directory.empty()),
      layout_(temporary_ ? NewTemporaryDirectory("varnel-board") : options.directory) {
  options.directory = layout_.Root();
  Launch(std::move(options));
}

Board::Board(Attached, const fs::path& directory) : layout_(directory) {}

std::unique_ptr<Board> Board::Attach(const fs::path& directory) {
  return std::unique_ptr<Board>(new Board(Attached{}, directory));
}

void Board::Launch(BootOptions options) {
  options.foreground = true;
  launcher_ = StartChild(BootCommand(options));
  if (AwaitBoot(layout_, launcher_, options)) return;
  End();
  throw std::runtime_error("the board did not come up");
}

Board::~Board() {
  if (launcher_ != 0) End();
}

void Board::End() const {
  if (!Stop(layout_)) ::kill(launcher_, SIGKILL);
  AwaitChild(launcher_);
  std::error_code error;
  if (temporary_) fs::remove_all(layout_.Root(), error);
}

fs::path Board::HostPath(const std::string& inside) const {
  const std::pair<std::string, fs::path> roots[] = {{"/userdata", layout_.Userdata()},
                                                    {"/tmp", layout_.Tmp()},
                                                    {"/home/ruxo", layout_.Home()},
                                                    {"/oem", layout_.Oem()},
                                                    {"/etc/varnel", layout_.EtcVarnel()},
                                                    {"/run", layout_.Run()},
                                                    {"/sys", layout_.Sys()},
                                                    {"/var/log", layout_.Log()}};
  for (const auto& [root, host] : roots) {
    if (inside == root) return host;
    if (inside.rfind(root + "/", 0) == 0) return host / inside.substr(root.size() + 1);
  }
  throw std::invalid_argument(inside + " does not lie on the host");
}

pid_t Board::HostPid() const {
  return ControlClient(layout_).HostPid();
}

ProgramResult Board::Exec(const std::vector<std::string>& command,
                          std::chrono::milliseconds limit) const {
  return RunProgram(EnterCommand(layout_, HostPid(), command), limit);
}

ProgramResult Board::Shell(const std::string& line, std::chrono::milliseconds limit) const {
  return Exec({"/bin/sh", "-c", line}, limit);
}

std::vector<std::string> Board::OnNetwork(const std::vector<std::string>& command) const {
  return EnterNetworkCommand(HostPid(), command);
}

bool Board::RunService(const std::string& name, const std::vector<std::string>& command) const {
  std::vector<std::string> request = {"run", name};
  request.insert(request.end(), command.begin(), command.end());
  return Ask(layout_, request);
}

bool Board::SignalService(const std::string& name, int signal) const {
  return Ask(layout_, {"signal", name, std::to_string(signal)});
}

std::optional<int> Board::AwaitServiceEnd(const std::string& name,
                                          std::chrono::milliseconds limit) const {
  const auto answer = ControlClient(layout_).Call({"wait", name}, limit);
  if (!answer) return std::nullopt;
  const json& service = answer->at("services").at(name);
  if (service.contains("signal")) return 128 + service.at("signal").get<int>();
  return service.value("status", 0);
}

bool Board::StartBroker() const {
  return Ask(layout_, {"start", "broker"}) && AwaitBroker(layout_, 10s);
}

bool Board::KillBroker(int signal) const {
  return SignalService("broker", signal) && AwaitServiceEnd("broker").has_value();
}

bool Board::StartDaemon(const std::vector<std::string>& arguments) const {
  std::vector<std::string> request = {"start", "daemon"};
  request.insert(request.end(), arguments.begin(), arguments.end());
  return Ask(layout_, request);
}

std::string Board::DaemonLog() const {
  return ReadFile(layout_.DaemonLog());
}

std::string Board::SystemLog() const {
  return ReadFile(layout_.Log() / "syslog");
}

void Board::OrderUpgrade(const std::string& text) const {
  if (!ReplaceFile(layout_.Upgrade() / "orders", text)) {
    throw std::runtime_error("the upgrade's orders cannot be written");
  }
}

std::vector<nlohmann::json> Board::UpgradeJournal() const {
  std::streamoff from = 0;
  return JsonLines(layout_.Upgrade() / "journal", from);
}

void Board::SetCameraFaults(const std::string& text) const {
  if (!CameraFiles(layout_.Camera()).EditFaults([&](const std::string&) { return text; })) {
    throw std::runtime_error("the camera's fault file cannot be written");
  }
}

std::string Board::CameraFaults() const {
  return ReadFile(CameraFiles(layout_.Camera()).Faults());
}

std::string Board::CameraJournal() const {
  return ReadFile(CameraFiles(layout_.Camera()).Journal());
}

void Board::ShowFrames(const std::vector<fs::path>& files) const {
  const fs::path frames = CameraFiles(layout_.Camera()).Frames();
  for (const auto& old : fs::directory_iterator(frames)) fs::remove(old);
  for (const fs::path& file : files) fs::copy_file(file, frames / file.filename());
}

void Board::SetClock(std::chrono::seconds ahead) const {
  if (!ReplaceFile(layout_.ClockOffset(), std::to_string(ahead.count()) + "\n")) {
    throw std::runtime_error("the clock cannot be set");
  }
}

fs::path ChartFile(const std::string& name) {
  return fs::path(VARNEL_BOARD_PROGRAM).parent_path() / "chart" / name;
}

}  // namespace varnel::board
