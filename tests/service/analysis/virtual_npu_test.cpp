// The virtual board's runtime and networks, on drawn scenes.
#include <gmock/gmock.h>

#include <algorithm>

#include "service/analysis/network/rknn_library.h"
#include "service/analysis/network/yolo11.h"
#include "virtual_board/chart/scene.h"

namespace varnel::service {
namespace {

using board::ColourOf;
using board::Scene;

/// Never unloaded, as in the daemon.
const RknnLibrary& VirtualNpu() {
  static const RknnLibrary& library = *new RknnLibrary({VARNEL_VIRTUAL_NPU});
  return library;
}

std::string NetworkFile(const char* name) {
  return std::string(VARNEL_NETWORKS "/") + name;
}

ImageBuffer View(board::Image& image) {
  ImageBuffer view;
  view.width = static_cast<int32_t>(image.width);
  view.height = static_cast<int32_t>(image.height);
  view.virt_addr = image.rgb.data();
  view.size = image.rgb.size();
  return view;
}

struct TrueBox {
  int cls;
  const char* name;
  std::array<int, 4> box;
};

DetectionList FindIn(const Scene& scene, const char* network, size_t classes) {
  NpuThread thread;
  NpuContext context({thread, &VirtualNpu()});
  EXPECT_EQ(init_yolo11_model(NetworkFile(network), {NetworkKind::kDetecting, classes}, context),
            0);
  board::Image image = DrawScene(scene);
  DetectionList found;
  const std::vector<float> thresholds(classes, 0.83F);
  EXPECT_EQ(inference_yolo11_model(context, View(image), found, thresholds, 0.5F), 0);
  return found;
}

double Iou(const Rect& a, const std::array<int, 4>& b) {
  const auto area = [](int w, int h) {
    return static_cast<double>(std::max(w, 0)) * std::max(h, 0);
  };
  const double overlap = area(std::min(a.right, b[2]) - std::max(a.left, b[0]),
                              std::min(a.bottom, b[3]) - std::max(a.top, b[1]));
  return overlap /
         (area(a.right - a.left, a.bottom - a.top) + area(b[2] - b[0], b[3] - b[1]) - overlap);
}

void ExpectFound(const std::vector<TrueBox>& objects, const char* network, size_t classes) {
  Scene scene;
  for (const TrueBox& object : objects)
    scene.objects.push_back({ColourOf(object.name), object.box});
  const DetectionList found = FindIn(scene, network, classes);
  EXPECT_EQ(static_cast<size_t>(found.count), objects.size());
  for (const TrueBox& object : objects) {
    const auto matches = [&](const Detection& d) {
      return d.cls_id == object.cls && d.prop >= 0.9F && Iou(d.box, object.box) >= 0.9;
    };
    EXPECT_EQ(std::count_if(found.results.begin(), found.results.begin() + found.count, matches), 1)
        << object.name << " " << object.box[0];
  }
}

TEST(VirtualNpuTest, FindsObjectsOfAllSizesWhereTheyAre) {
  ExpectFound({}, "print_check.fp.rknn", 1);
  ExpectFound({{0, "noodle", {31, 17, 76, 62}},
               {0, "noodle", {601, 307, 1203, 649}},
               {0, "lookalike", {1300, 900, 1911, 1079}}},
              "print_check.fp.rknn", 1);
  ExpectFound({{0, "noodle", {3, 1, 1918, 1079}}}, "print_check.fp.rknn", 1);
  ExpectFound({{0, "item", {100, 100, 400, 230}},
               {0, "item", {100, 240, 400, 370}},
               {1, "nozzle", {900, 20, 1000, 140}},
               {2, "legend_text", {1500, 800, 1800, 860}},
               {3, "extrusion_line", {400, 371, 460, 900}}},
              "bed_check.fp.rknn", 4);
}

TEST(VirtualNpuTest, TellsNoodlesFromWhatLooksLikeThem) {
  NpuThread thread;
  NpuContext context({thread, &VirtualNpu()});
  ASSERT_EQ(init_yolo11_model(NetworkFile("noodle_verify.fp.rknn"), {NetworkKind::kClassifying, 2},
                              context),
            0);
  const std::pair<const char*, bool> crops[] = {
      {"noodle", true}, {"lookalike", false}, {"item", false}};
  for (const auto& [name, passes] : crops) {
    board::Image crop = DrawScene(Scene{90, 400, ColourOf(name), {}});
    std::vector<float> values;
    ASSERT_EQ(inference_classifier(context, View(crop), values), 0);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_NEAR(values[0] + values[1], 1, 0.001);
    EXPECT_EQ(values[1] >= 0.7F, passes) << name;
  }
}

TEST(VirtualNpuTest, RefusesWhatIsNoFloatNetwork) {
  NpuThread thread;
  NpuContext context({thread, &VirtualNpu()});
  for (const std::string& file : {std::string(VARNEL_VIRTUAL_NPU), std::string("/nonexistent"),
                                  NetworkFile("quantised.rknn")}) {
    EXPECT_EQ(init_yolo11_model(file, {NetworkKind::kDetecting, 1}, context), -1) << file;
  }
}

}  // namespace
}  // namespace varnel::service
