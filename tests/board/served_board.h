#pragma once

#include <chrono>
#include <string>

#include "board/board.h"
#include "board/rpc_caller.h"

namespace varnel::board {

/// A board with a daemon that answers, and a caller for it.
struct ServedBoard {
  /// `deployment` is the text of the maker's settings; empty: no such file.
  explicit ServedBoard(BootOptions options, const std::string& deployment = "");

  /// Takes a photo for a client: {"result": ...} or {"error": ...}.
  nlohmann::json Photo(const std::string& path, int64_t timestamp = 0);
  nlohmann::json PostPhoto(const std::string& path);
  /// Content of a file of the board; empty when there is none.
  [[nodiscard]] std::string File(const std::string& inside) const;
  /// Ends the daemon in order, so that its whole log is in its file.
  std::string StopAndReadLog();

  Board board;
  RpcCaller rpc;
};

/// A complete picture of that kind, from its first to its last mark.
bool IsWholeJpeg(const std::string& bytes);
bool IsWholePng(const std::string& bytes);

}  // namespace varnel::board
