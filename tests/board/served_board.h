#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "virtual_board/client/board.h"
#include "virtual_board/client/rpc_caller.h"

namespace varnel::board {

/// A board with a daemon that answers, and a caller for it.
struct ServedBoard {
  /// Changes the board before the daemon starts.
  using Preparation = std::function<void(const Board& board)>;

  explicit ServedBoard(BootOptions options, const Preparation& prepare = {});
  /// What broke the contract is a failure of the running test.
  ~ServedBoard();

  /// Takes a photo for a client: {"result": ...} or {"error": ...}.
  nlohmann::json Photo(const std::string& path, int64_t timestamp = 0);
  nlohmann::json PostPhoto(const std::string& path);
  /// Content of a file of the board; empty when there is none.
  [[nodiscard]] std::string File(const std::string& inside) const;
  /// Ends the daemon in order, starts it again and waits until it answers.
  void Restart();
  /// Ends the daemon in order, so that its whole log is in its file.
  std::string StopAndReadLog();

  Board board;
  RpcCaller rpc;
};

/// Gives the board these settings of its maker.
ServedBoard::Preparation WithDeployment(const std::string& settings);

/// A complete picture of that kind, from its first to its last mark.
bool IsWholeJpeg(const std::string& bytes);
bool IsWholePng(const std::string& bytes);

}  // namespace varnel::board
