#include "board/scenes.h"

#include <stdexcept>

#include "support/temp_dir.h"
#include "virtual_board/chart/scene.h"

namespace varnel::board {

void ShowScene(const Board& board, const nlohmann::json& scene) {
  const Image image = DrawScene(Scene::Parse(scene));
  const test::TempDir directory;
  board.ShowFrames(
      {directory.Write("scene.nv12", ToNv12(image)), directory.Write("scene.yuyv", ToYuyv(image))});
}

}  // namespace varnel::board
