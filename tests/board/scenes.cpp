#include "board/scenes.h"

#include <fstream>
#include <sstream>

#include "virtual_board/chart/scene.h"

namespace varnel::board {
namespace {

constexpr int kBands = 8;

}  // namespace

void ShowScene(const Board& board, const nlohmann::json& scene) {
  const Image image = DrawScene(Scene::Parse(scene));
  const test::TempDir directory;
  board.ShowFrames(
      {directory.Write("scene.nv12", ToNv12(image)), directory.Write("scene.yuyv", ToYuyv(image))});
}

void CodedScene::Show(unsigned number) const {
  constexpr size_t kWidth = 1920;
  constexpr size_t kPixels = kWidth * 1080;
  std::string luma(kPixels, '\0');
  for (size_t i = 0; i < kPixels; ++i) {
    const size_t band = i % kWidth / (kWidth / kBands);
    luma[i] = static_cast<char>((number >> band & 1U) != 0 ? 200 : 40);
  }
  std::string interleaved(2 * kPixels, '\x80');
  for (size_t i = 0; i < kPixels; ++i) interleaved[2 * i] = luma[i];
  std::ofstream(files_ / "scene.nv12") << luma << std::string(kPixels / 2, '\x80');
  std::ofstream(files_ / "scene.yuyv") << interleaved;
  board_.ShowFrames({files_ / "scene.nv12", files_ / "scene.yuyv"});
}

std::vector<unsigned> NumbersIn(const Board& board, const std::string& inside) {
  const std::string grey =
      board
          .Shell("ffmpeg -nostdin -v error -i " + inside + " -vf scale=" + std::to_string(kBands) +
                 ":1:flags=area,format=gray -f rawvideo - | od -An -v -tu1 -w" +
                 std::to_string(kBands))
          .out;
  std::istringstream values(grey);
  std::vector<unsigned> numbers;
  for (int value = 0, i = 0; values >> value; ++i) {
    if (i % kBands == 0) numbers.push_back(0);
    if (value > 120) numbers.back() |= 1U << static_cast<unsigned>(i % kBands);
  }
  return numbers;
}

}  // namespace varnel::board
