#include "virtual_board/chart/scene.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace varnel::board {

namespace {

constexpr uint32_t kMaximumSide = 8192;

/// Two pixels share a chroma sample in a camera's frame.
void CheckSide(uint32_t side) {
  if (side == 0 || side % 2 != 0 || side > kMaximumSide) {
    throw std::invalid_argument("a side of the scene must be even and at most 8192");
  }
}

void Fill(Image& image, const Scene::Object& object) {
  const auto [left, top, right, bottom] = object.box;
  const int columns = static_cast<int>(image.width);
  const int rows = static_cast<int>(image.height);
  for (int y = std::max(top, 0); y < std::min(bottom, rows); ++y) {
    for (int x = std::max(left, 0); x < std::min(right, columns); ++x) {
      const size_t pixel = static_cast<size_t>(y) * image.width + static_cast<size_t>(x);
      std::copy(object.colour.begin(), object.colour.end(), &image.rgb[pixel * 3]);
    }
  }
}

Scene::Object ParseObject(const nlohmann::json& json) {
  Scene::Object object;
  object.box = json.at("box").get<std::array<int, 4>>();
  object.colour = json.contains("colour") ? json["colour"].get<SceneColour>()
                                          : ColourOf(json.value("class", "noodle"));
  return object;
}

}  // namespace

SceneColour ColourOf(const std::string& name) {
  static const std::map<std::string, SceneColour> colours = {
      {"noodle", {230, 230, 38}},     {"lookalike", {188, 188, 38}},
      {"item", {217, 38, 38}},        {"nozzle", {38, 38, 217}},
      {"legend_text", {38, 217, 38}}, {"extrusion_line", {38, 217, 217}}};
  const auto colour = colours.find(name);
  if (colour == colours.end()) throw std::invalid_argument("no colour for " + name);
  return colour->second;
}

Scene Scene::Parse(const nlohmann::json& json) {
  Scene scene;
  scene.width = json.value("width", scene.width);
  scene.height = json.value("height", scene.height);
  CheckSide(scene.width);
  CheckSide(scene.height);
  scene.bed = json.value("bed", scene.bed);
  for (const auto& object : json.value("objects", nlohmann::json::array())) {
    scene.objects.push_back(ParseObject(object));
  }
  return scene;
}

Image DrawScene(const Scene& scene) {
  Image image{scene.width, scene.height,
              std::vector<uint8_t>(size_t{scene.width} * scene.height * 3)};
  const int width = static_cast<int>(scene.width);
  const int height = static_cast<int>(scene.height);
  Fill(image, {scene.bed, {0, 0, width, height}});
  for (const Scene::Object& object : scene.objects) Fill(image, object);
  return image;
}

}  // namespace varnel::board
