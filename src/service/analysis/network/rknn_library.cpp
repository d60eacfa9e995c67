#include "service/analysis/network/rknn_library.h"

#include <dlfcn.h>

#include <utility>

namespace varnel::service {

namespace {

template <class Function>
bool Find(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(::dlsym(library, name));
  return function != nullptr;
}

bool FindAll(void* library, RknnApi& api) {
  return Find(library, "rknn_init", api.init) && Find(library, "rknn_destroy", api.destroy) &&
         Find(library, "rknn_query", api.query) &&
         Find(library, "rknn_inputs_set", api.inputs_set) && Find(library, "rknn_run", api.run) &&
         Find(library, "rknn_outputs_get", api.outputs_get) &&
         Find(library, "rknn_outputs_release", api.outputs_release);
}

std::string LoaderError() {
  const char* text = ::dlerror();
  return text != nullptr ? text : "unknown reason";
}

}  // namespace

void RknnLibrary::Closer::operator()(void* handle) const noexcept {
  ::dlclose(handle);
}

RknnLibrary::RknnLibrary(const std::vector<std::string>& names, std::optional<NpuDriver> driver)
    : driver_(std::move(driver)) {
  for (const std::string& name : names) {
    if (Load(name)) return;
  }
}

const RknnLibrary& RknnLibrary::Board() {
  // Never unloaded: the runtime may have threads of its own when the process ends.
  static const RknnLibrary& library =
      *new RknnLibrary({"librknnrt.so", "/usr/lib/librknnrt.so"}, NpuDriver());
  return library;
}

std::string RknnLibrary::Problem() const {
  if (!handle_) return "no NPU runtime: " + error_;
  if (driver_ && !driver_->IsThere()) return "no NPU driver: none of " + driver_->Places();
  return {};
}

bool RknnLibrary::Load(const std::string& name) {
  handle_.reset(::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (handle_ && FindAll(handle_.get(), api_)) return true;
  error_ += (error_.empty() ? "" : "; ") + LoaderError();
  handle_.reset();
  return false;
}

}  // namespace varnel::service
