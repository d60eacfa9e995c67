#include "board/board.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "virtual_board/common/files.h"
#include "virtual_board/launcher/enter.h"
#include "virtual_board/launcher/launcher.h"

namespace varnel::board {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr const char* kBoardVariable = "VARNEL_TEST_BOARD";

fs::path TemporaryDirectory() {
  std::string path = (fs::temp_directory_path() / "varnel-board-XXXXXX").string();
  if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary directory");
  return path;
}

/// The command line that boots a board with these options.
std::vector<std::string> BootCommand(const BootOptions& options) {
  std::vector<std::string> words = {VARNEL_BOARD_PROGRAM, "boot", options.directory.string()};
  words.insert(words.end(), {"--foreground", "--camera"});
  words.emplace_back(options.camera == CameraKind::kUsb ? "usb" : "mipi");
  if (!options.daemon.empty()) words.insert(words.end(), {"--daemon", options.daemon.string()});
  if (!options.start_daemon) words.emplace_back("--no-daemon");
  if (!options.start_broker) words.emplace_back("--no-broker");
  if (!options.npu) words.emplace_back("--no-npu");
  for (const auto& [host, inside] : options.binds) {
    words.insert(words.end(), {"--bind", host, inside});
  }
  for (const auto& [name, value] : options.environment) {
    words.insert(words.end(), {"--setenv", name, value});
  }
  return words;
}

pid_t StartChild(const std::vector<std::string>& command) {
  const auto pointers = ArgumentPointers(command);
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("no process for " + command[0]);
  if (child > 0) return child;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::execvp(pointers[0], pointers.data());
  ::_exit(127);
}

int AwaitChild(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return ShellStatus(status);
}

void PassSanitizerSettings(BootOptions& options) {
  options.binds.emplace_back(VARNEL_TESTS_DIRECTORY, "/opt/varnel/tests");
  options.environment["LSAN_OPTIONS"] = "suppressions=/opt/varnel/tests/lsan.supp";
  options.environment["TSAN_OPTIONS"] = "suppressions=/opt/varnel/tests/tsan.supp";
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) options.environment[name] = value;
  }
}

bool Ask(const Layout& layout, const std::vector<std::string>& request) {
  const auto answer = ControlClient(layout).Call(request);
  return answer && answer->value("ok", false);
}

std::unique_ptr<Board>& Attachment() {
  static std::unique_ptr<Board> board;
  return board;
}

int RunTestsOn(const std::string& directory, int argc, char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  Attachment() = Board::Attach(directory);
  ::testing::InitGoogleTest(&argc, argv);
  const int status = RUN_ALL_TESTS();
  Attachment().reset();
  return status;
}

}  // namespace

Board::Board(BootOptions options)
    : temporary_(options.directory.empty()),
      layout_(temporary_ ? TemporaryDirectory() : options.directory) {
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
  if (AwaitBoot(layout_, launcher_, options.start_broker)) return;
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

ProgramResult Board::Shell(const std::string& line) const {
  return Exec({"/bin/sh", "-c", line});
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

BootOptions DaemonOptions() {
  BootOptions options;
  options.daemon = VARNEL_DAEMON;
  options.start_daemon = false;
  PassSanitizerSettings(options);
  return options;
}

fs::path ChartFile(const std::string& name) {
  return fs::path(VARNEL_BOARD_PROGRAM).parent_path() / "chart" / name;
}

Board& TheBoard() {
  return *Attachment();
}

int RunInsideBoard(int argc, char** argv, const BootOptions& options) {
  if (const char* directory = std::getenv(kBoardVariable)) return RunTestsOn(directory, argc, argv);
  const Board board(options);
  ::setenv(kBoardVariable, board.Paths().Root().c_str(), 1);
  std::vector<std::string> self(argv, argv + argc);
  self[0] = fs::read_symlink("/proc/self/exe");
  return AwaitChild(StartChild(board.OnNetwork(self)));
}

}  // namespace varnel::board
