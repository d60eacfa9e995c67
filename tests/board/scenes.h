#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "virtual_board/client/board.h"

namespace varnel::board {

/// Puts this scene (see virtual_board/chart/scene.h) before the board's cameras.
void ShowScene(const Board& board, const nlohmann::json& scene);

/// A frame of both cameras that shows a number: bit by bit, from the left, in bright and dark
/// bands.
class CodedScene {
 public:
  explicit CodedScene(const Board& board) : board_(board) {}

  /// @param number below 256
  void Show(unsigned number) const;

 private:
  const Board& board_;
  const test::TempDir files_;
};

/// The numbers that the frames of a film, or a picture, of the board show.
std::vector<unsigned> NumbersIn(const Board& board, const std::string& inside);

}  // namespace varnel::board
