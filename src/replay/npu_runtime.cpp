#include "replay/npu_runtime.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>

namespace varnel::replay {
namespace {

template <class Letters>
std::string Text(const Letters& answer) {
  return {std::begin(answer), std::find(std::begin(answer), std::end(answer), '\0')};
}

}  // namespace

std::filesystem::path RuntimeFile(const service::RknnLibrary& library) {
  Dl_info info{};
  const auto* address = reinterpret_cast<const void*>(library.Api()->init);
  if (::dladdr(address, &info) == 0 || info.dli_fname == nullptr) return {};
  return info.dli_fname;
}

std::optional<RuntimeVersion> AskVersion(const service::RknnLibrary& library,
                                         const std::filesystem::path& network) {
  const service::RknnApi& api = *library.Api();
  std::string path = network.string();
  service::RknnHandle handle = 0;
  if (api.init(&handle, path.data(), 0, 0, nullptr) != service::kRknnSuccess) return std::nullopt;
  service::RuntimeVersions answer{};
  const int code = api.query(handle, service::RknnQuery::kVersions, &answer, sizeof answer);
  api.destroy(handle);
  if (code != service::kRknnSuccess) return std::nullopt;
  return RuntimeVersion{Text(answer.runtime), Text(answer.driver)};
}

}  // namespace varnel::replay
