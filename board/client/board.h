#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "virtual_board/camera/camera_files.h"
#include "virtual_board/common/process.h"
#include "virtual_board/launcher/boot_options.h"
#include "virtual_board/launcher/layout.h"

namespace varnel::board {

/// What a process holds at this moment.
struct ProcessCounters {
  long threads = 0;
  long descriptors = 0;
  long resident_kb = 0;
  std::chrono::milliseconds processor_time{0};
  long voluntary_switches = 0;  ///< over all threads: each is a wake-up later
};

/// A process of a board as the host sees it.
struct ProcessInfo {
  pid_t pid = 0;
  std::string name;
  char state = '?';  ///< as in /proc/PID/stat; 'Z' is a zombie
};

/// One virtual board in a directory of its own, driven by a program.
///
/// A test program talks to the board's broker in one of two ways:
/// - Exec() runs mosquitto's clients inside, from any test program, for any number of boards;
/// - a program whose main() is RunInsideBoard() runs on the network of one board that lives as long
/// as the program:
///   there 127.0.0.1:1883 is that board's broker for Paho and every other library, while files and
///   processes are the host's, so all methods of this class work there too. TheBoard() is that
///   board.
///
/// The board ends with this object, and also when the test program is killed; the thread that boots
/// it must therefore live as long as the board. Methods may be called from several threads.
class Board {
 public:
  /// Boots; options.directory may be empty for a temporary one that goes with the object. Throws
  /// std::runtime_error.
  explicit Board(BootOptions options);
  /// A board that somebody else booted and will stop.
  static std::unique_ptr<Board> Attach(const std::filesystem::path& directory);
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;
  ~Board();

  /// Host paths of the board's parts.
  [[nodiscard]] const Layout& Paths() const { return layout_; }
  /// Host path of a path inside: "/userdata", "/tmp", "/home/ruxo", "/oem", "/etc/varnel", "/run",
  /// "/sys", "/var/log".
  [[nodiscard]] std::filesystem::path HostPath(const std::string& inside) const;

  /// Runs a command inside.
  [[nodiscard]] ProgramResult Exec(
      const std::vector<std::string>& command,
      std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
  /// Runs a shell command line inside.
  [[nodiscard]] ProgramResult Shell(
      const std::string& line, std::chrono::milliseconds limit = std::chrono::seconds(30)) const;
  /// The command for a program of the host that is to run on the board's network.
  [[nodiscard]] std::vector<std::string> OnNetwork(const std::vector<std::string>& command) const;

  /// Services: "broker", "daemon", and those that were started with RunService(). False when that
  /// is refused.
  bool RunService(const std::string& name, const std::vector<std::string>& command) const;
  bool SignalService(const std::string& name, int signal) const;
  /// Waits for its end: its exit status, or 128 + signal. Nothing at the time limit.
  [[nodiscard]] std::optional<int> AwaitServiceEnd(
      const std::string& name, std::chrono::milliseconds limit = std::chrono::seconds(15)) const;

  /// Returns when the broker takes connections.
  bool StartBroker() const;
  /// Returns when it has ended.
  bool KillBroker(int signal = 9) const;

  /// Arguments replace those of the last start, when any are given.
  bool StartDaemon(const std::vector<std::string>& arguments = {}) const;
  bool SignalDaemon(int signal) const { return SignalService("daemon", signal); }
  [[nodiscard]] std::optional<int> AwaitDaemonEnd(
      std::chrono::milliseconds limit = std::chrono::seconds(15)) const {
    return AwaitServiceEnd("daemon", limit);
  }
  [[nodiscard]] bool DaemonRunning() const { return DaemonPid() != 0; }
  /// The daemon's host process, 0 when it does not run.
  [[nodiscard]] pid_t DaemonPid() const;
  [[nodiscard]] ProcessCounters DaemonCounters() const;
  /// Everything that runs inside, the board's first process and zombies included.
  [[nodiscard]] std::vector<ProcessInfo> Processes() const;
  [[nodiscard]] std::string DaemonLog() const;
  [[nodiscard]] std::string SystemLog() const;

  /// The daemon of a board booted with `clock` sees a wall clock that is ahead by so much.
  void SetClock(std::chrono::seconds ahead) const;

  /// Orders for the upgrade script, in the language of upgrade/systemUpgrade.sh; empty: none.
  void OrderUpgrade(const std::string& text) const;
  /// What the upgrade script did so far: objects with an "event", "start", "read" or "end".
  [[nodiscard]] std::vector<nlohmann::json> UpgradeJournal() const;

  /// Faults of both cameras, in the language of camera/faults.h; empty: none.
  void SetCameraFaults(const std::string& text) const;
  /// The fault lines that are left.
  [[nodiscard]] std::string CameraFaults() const;
  /// What the cameras did, see camera/camera_files.h.
  [[nodiscard]] std::string CameraJournal() const;
  /// Replaces what the cameras see by these files.
  void ShowFrames(const std::vector<std::filesystem::path>& files) const;

 private:
  struct Attached {};
  Board(Attached, const std::filesystem::path& directory);
  void Launch(BootOptions options);
  /// Ends the board, whatever state it is in, and removes a temporary directory.
  void End() const;
  [[nodiscard]] pid_t HostPid() const;

  bool temporary_ = false;
  Layout layout_;
  pid_t launcher_ = 0;
};

/// Pictures that the build has drawn: "chart.nv12", "chart.yuyv" and "chart.ppm".
std::filesystem::path ChartFile(const std::string& name);

ProcessCounters CountersOf(pid_t pid);

}  // namespace varnel::board
