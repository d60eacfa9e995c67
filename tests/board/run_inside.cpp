#include "board/run_inside.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "virtual_board/common/process.h"

namespace varnel::board {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBoardVariable = "VARNEL_TEST_BOARD";

void PassSanitizerSettings(BootOptions& options) {
  options.binds.emplace_back(VARNEL_TESTS_DIRECTORY, "/opt/varnel/tests");
  options.environment["LSAN_OPTIONS"] = "suppressions=/opt/varnel/tests/lsan.supp";
  options.environment["TSAN_OPTIONS"] = "suppressions=/opt/varnel/tests/tsan.supp";
  for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS"}) {
    if (const char* value = std::getenv(name)) options.environment[name] = value;
  }
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

BootOptions DaemonOptions() {
  BootOptions options;
  options.daemon = VARNEL_DAEMON;
  options.start_daemon = false;
  PassSanitizerSettings(options);
  return options;
}

void OnThreads(size_t count, const std::function<void(size_t)>& run) {
  std::vector<std::jthread> threads;
  for (size_t i = 0; i < count; ++i) {
    threads.emplace_back([&run, i] {
      try {
        run(i);
      } catch (const std::exception& error) {
        ADD_FAILURE() << "thread " << i << ": " << error.what();
      }
    });
  }
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
