#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "virtual_board/client/board.h"
#include "virtual_board/client/contract.h"
#include "virtual_board/client/mqtt_link.h"

namespace varnel::board {

/// What the daemon writes to its console when it was started with "-v".
class DaemonConsole {
 public:
  explicit DaemonConsole(const Board& board) : board_(board) {}

  /// Forgets what was written so far.
  void Mark() { start_ = Whole().size(); }
  [[nodiscard]] std::string Text() const { return Whole().substr(start_); }
  /// The end of it, for a failure's message.
  [[nodiscard]] std::string Tail() const;
  [[nodiscard]] size_t Count(const std::string& text) const;
  [[nodiscard]] bool AwaitText(const std::string& text, std::chrono::milliseconds limit) const;
  /// When the first line with this text was written; nothing when there is none.
  [[nodiscard]] std::optional<std::chrono::system_clock::time_point> TimeOf(
      const std::string& text) const;

 private:
  [[nodiscard]] std::string Whole() const;

  const Board& board_;
  size_t start_ = 0;
};

/// A link to the board's broker from the host, whatever the state of the board's network. Throws
/// std::runtime_error.
MqttLink LinkTo(const Board& board, const std::string& client_id);

/// The committed contract; what a test program sees of the daemon is judged by it.
const Contract& DaemonContract();

}  // namespace varnel::board
