#include "service/analysis/network/npu_driver.h"

#include <fstream>
#include <system_error>

namespace varnel::service {
namespace {

namespace fs = std::filesystem;

bool Exists(const fs::path& path) {
  std::error_code error;
  return fs::exists(path, error);
}

bool IsNpu(const fs::path& render_node) {
  std::ifstream uevent(render_node / "device/uevent");
  for (std::string line; std::getline(uevent, line);)
    if (line == "DRIVER=RKNPU") return true;
  return false;
}

bool HasRenderNode(const fs::path& directory) {
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    if (entry->path().filename().string().starts_with("renderD") && IsNpu(entry->path()))
      return true;
  }
  return false;
}

}  // namespace

bool NpuDriver::IsThere() const {
  return Exists(debug) || Exists(node) || HasRenderNode(render_nodes);
}

std::string NpuDriver::Places() const {
  return debug.string() + ", " + node.string() + ", " + (render_nodes / "renderD*").string();
}

}  // namespace varnel::service
