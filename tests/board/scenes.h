#pragma once

#include <nlohmann/json.hpp>

#include "virtual_board/client/board.h"

namespace varnel::board {

/// Puts this scene (see virtual_board/chart/scene.h) before the board's cameras.
void ShowScene(const Board& board, const nlohmann::json& scene);

}  // namespace varnel::board
