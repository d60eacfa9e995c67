// How the daemon starts, what it reports on the way, and how it crashes.
#include <gmock/gmock.h>
#include <signal.h>

#include <set>

#include "board/run_inside.h"
#include "support/temp_dir.h"
#include "virtual_board/client/daemon_talk.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

constexpr const char* kUnreachable =
    "local MQTT broker not reachable within 10s, continuing anyway";
constexpr const char* kConnecting = "Connecting to MQTT broker at 127.0.0.1:1883";

BootOptions WithoutBroker() {
  BootOptions options = DaemonOptions();
  options.start_broker = false;
  return options;
}

/// Every file of the board that a program inside could have made.
std::set<fs::path> FilesOf(const Board& board) {
  const fs::recursive_directory_iterator all(board.Paths().Root());
  return {begin(all), end(all)};
}

class DaemonLifeTest : public testing::Test {
 protected:
  /// Returns when it connects to the broker.
  static void Start(const Board& board, const DaemonConsole& console) {
    board.SetCameraFaults("unplug");  // saves the camera's warm-up
    ASSERT_TRUE(board.StartDaemon({"-v"}));
    ASSERT_TRUE(console.AwaitText(kConnecting, 30s));
  }
  static void ExpectCleanStop(const Board& board) {
    ASSERT_TRUE(board.SignalDaemon(SIGIO)) << "what a broken lease brings does not end it";
    ASSERT_TRUE(board.SignalDaemon(SIGTERM));
    EXPECT_EQ(board.AwaitDaemonEnd(), 0);
  }
};

TEST_F(DaemonLifeTest, WrongCommandLinesPrintTheUsageAndStartNothing) {
  const Board board(WithoutBroker());
  const auto before = FilesOf(board);
  const std::vector<std::string> wrong[] = {{"-x"}, {"-vv"}, {"-v", "extra"}, {""}};
  for (std::vector<std::string> command : wrong) {
    command.insert(command.begin(), inside::kDaemon);
    const ProgramResult result = board.Exec(command);
    EXPECT_EQ(result.status, 1) << testing::PrintToString(command);
    EXPECT_EQ(result.err, "Usage: varnel [-v]\n");
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(FilesOf(board), before);
}

TEST_F(DaemonLifeTest, LogsToTheConsoleOnlyAndGoesOnWithoutASystemProgram) {
  const test::TempDir host;
  BootOptions options = WithoutBroker();
  options.binds.emplace_back(host.Write("ffmpeg", "no program"), "/usr/bin/ffmpeg");
  const Board board(options);
  DaemonConsole console(board);
  ASSERT_NO_FATAL_FAILURE(Start(board, console));
  EXPECT_THAT(console.Text(),
              AllOf(ContainsRegex("Signal handler initialized\n.*Output logs to console\n"
                                  ".*Start Varnel Service \\.\\.\\.\n"),
                    HasSubstr("System program ffmpeg(/usr/bin/ffmpeg) is not exists."),
                    HasSubstr("System program tar is located in /usr/bin/tar"),
                    HasSubstr("System uptime is 41.75 160.20")));
  ExpectCleanStop(board);
  EXPECT_THAT(console.Text(), HasSubstr("Shutdown complete"));
  EXPECT_TRUE(fs::is_empty(board.Paths().DaemonLog().parent_path()));
}

/// Started with the signal of ended children ignored, as some supervisors do: kept so, it would
/// hide how each program of the start has ended.
TEST_F(DaemonLifeTest, ChildrenCountWhoeverStartsItAndATerminationSignalEndsTheWaitForTheBroker) {
  const test::TempDir host;
  BootOptions options = WithoutBroker();
  options.binds.emplace_back(options.daemon, "/opt/varnel/daemon");
  options.daemon =
      host.WriteScript("daemon", "exec env --ignore-signal=CHLD /opt/varnel/daemon \"$@\"");
  const Board board(options);
  DaemonConsole console(board);
  ASSERT_NO_FATAL_FAILURE(Start(board, console));
  ExpectCleanStop(board);
  EXPECT_THAT(console.Text(), AllOf(HasSubstr("System program tar is located in /usr/bin/tar"),
                                    Not(HasSubstr("is not exists")), HasSubstr("Shutdown complete"),
                                    Not(HasSubstr(kUnreachable))));
}

/// Dies by the signal, after telling the system log where.
TEST_F(DaemonLifeTest, ACrashLeavesItsReportInTheSystemLog) {
  const Board board(WithoutBroker());
  DaemonConsole console(board);
  for (const auto& [number, name] : {std::pair(SIGSEGV, "SIGSEGV"), std::pair(SIGABRT, "SIGABRT"),
                                     std::pair(SIGBUS, "SIGBUS"), std::pair(SIGILL, "SIGILL")}) {
    console.Mark();
    const size_t before = board.SystemLog().size();
    ASSERT_NO_FATAL_FAILURE(Start(board, console));
    ASSERT_TRUE(board.SignalDaemon(number));
    EXPECT_EQ(board.AwaitDaemonEnd(), 128 + number);
    EXPECT_THAT(board.SystemLog().substr(before),
                ContainsRegex("varnel\\[([0-9]+)\\]: Process crashed with signal " +
                              std::to_string(number) + " \\(" + name + "\\), PID: [0-9]+\n" +
                              ".*: Stack trace:\n.*:   \\[0\\] .*\n.*:   \\[1\\] "));
  }
}

}  // namespace
}  // namespace varnel::board
