#pragma once

#include <functional>

#include "virtual_board/client/board.h"

namespace varnel::board {

/// Options for a board with the daemon of this build, not started, and the sanitizers' settings of
/// this program.
BootOptions DaemonOptions();

/// Runs it once on each of `count` threads, with their numbers; an exception is a failure of the
/// test.
void OnThreads(size_t count, const std::function<void(size_t)>& run);

/// main() of a test program that runs on the network of a board of its own: boots it, runs this
/// program again inside its network, where the tests run, and stops it. Without tests to run
/// (listing, no match) it boots all the same.
int RunInsideBoard(int argc, char** argv, const BootOptions& options);
/// The board of a program started through RunInsideBoard().
Board& TheBoard();

}  // namespace varnel::board
