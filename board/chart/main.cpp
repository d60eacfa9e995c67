// Draws test charts and scenes, and compares pictures; see docs/virtual-board.md.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "virtual_board/chart/chart.h"
#include "virtual_board/chart/scene.h"
#include "virtual_board/common/files.h"

namespace {

using varnel::board::Image;

constexpr double kAcceptedError = 4.0;

int Usage() {
  std::fputs(
      "Usage: varnel-chart DIRECTORY [--frames N]\n       varnel-chart --scene SCENE.json STEM\n"
      "       varnel-chart --compare A.ppm B.ppm\n",
      stderr);
  return 2;
}

bool Write(const std::string& stem, const Image& image) {
  return varnel::board::ReplaceFile(stem + ".nv12", ToNv12(image)) &&
         varnel::board::ReplaceFile(stem + ".yuyv", ToYuyv(image)) &&
         varnel::board::ReplaceFile(stem + ".ppm", ToPpm(image));
}

int Generate(const std::string& directory, uint32_t frames) {
  bool written = true;
  if (frames == 0) written = Write(directory + "/chart", varnel::board::DrawChart(0));
  for (uint32_t number = 1; written && number <= frames; ++number) {
    char name[32];
    std::snprintf(name, sizeof name, "/chart-%04u", number);
    written = Write(directory + name, varnel::board::DrawChart(number));
  }
  if (!written) std::fprintf(stderr, "varnel-chart: cannot write to %s\n", directory.c_str());
  return written ? 0 : 1;
}

int DrawScene(const std::string& file, const std::string& stem) {
  const auto json = nlohmann::json::parse(varnel::board::ReadFile(file));
  if (Write(stem, varnel::board::DrawScene(varnel::board::Scene::Parse(json)))) return 0;
  std::fprintf(stderr, "varnel-chart: cannot write %s\n", stem.c_str());
  return 1;
}

int Compare(const std::string& a, const std::string& b) {
  const auto first = varnel::board::ReadPpm(a);
  const auto second = varnel::board::ReadPpm(b);
  const auto error = first && second ? MeanError(*first, *second) : std::nullopt;
  if (!error) {
    std::fputs("varnel-chart: not two PPM pictures of one size\n", stderr);
    return 1;
  }
  std::printf("red %.2f green %.2f blue %.2f\n", (*error)[0], (*error)[1], (*error)[2]);
  return *std::max_element(error->begin(), error->end()) < kAcceptedError ? 0 : 1;
}

int Run(const std::vector<std::string>& arguments) {
  const size_t count = arguments.size();
  if (count == 3 && arguments[0] == "--compare") return Compare(arguments[1], arguments[2]);
  if (count == 3 && arguments[0] == "--scene") return DrawScene(arguments[1], arguments[2]);
  if (count == 1) return Generate(arguments[0], 0);
  if (count != 3 || arguments[1] != "--frames") return Usage();
  return Generate(arguments[0],
                  static_cast<uint32_t>(std::strtoul(arguments[2].c_str(), nullptr, 10)));
}

}  // namespace

int main(int argc, char** argv) try {
  return Run({argv + 1, argv + argc});
} catch (const std::exception& error) {
  std::fprintf(stderr, "varnel-chart: %s\n", error.what());
  return 1;
}
