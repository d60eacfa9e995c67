#include "service/analysis/picture/rga_library.h"

#include <dlfcn.h>

#include <array>
#include <optional>

#include "utils/owned.h"

namespace varnel::service {
namespace {

using Handle = utils::Owned<void, ::dlclose>;

template <class Function>
bool Find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  return function != nullptr;
}

std::optional<RgaFunctions> FunctionsOf(void* library) {
  RgaFunctions found;
  const bool complete = Find(library, "improcess", found.improcess) &&
                        Find(library, "imfill_t", found.imfill) &&
                        Find(library, "wrapbuffer_virtualaddr_t", found.wrap_virtual_address) &&
                        Find(library, "wrapbuffer_fd_t", found.wrap_fd) &&
                        Find(library, "imStrError_t", found.error_text);
  return complete ? std::optional(found) : std::nullopt;
}

}  // namespace

RgaLibrary::RgaLibrary(std::span<const std::string> names) {
  for (const std::string& name : names) {
    Handle library(::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL));
    const auto functions = library ? FunctionsOf(library.get()) : std::nullopt;
    if (functions) {
      functions_ = *functions;
      // It stays in memory for ever: its own threads and static objects do not expect to lose their
      // code.
      static_cast<void>(library.release());
      return;
    }
  }
}

const RgaLibrary& BoardRgaLibrary() {
  static const std::array<std::string, 2> kNames = {"librga.so", "librga.so.2"};
  static const RgaLibrary kLibrary(kNames);
  return kLibrary;
}

}  // namespace varnel::service
