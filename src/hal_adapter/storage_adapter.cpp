#include "hal_adapter/storage_adapter.h"

#include <array>
#include <utility>

namespace varnel::hal_adapter {
namespace {

constexpr const char* kTag = "HALSTO";
constexpr const char* kSaveFolder = "varnel";

}  // namespace

StorageAdapter::StorageAdapter(AreaInit init, const HalRegistry& registry)
    : init_(std::move(init)), registry_(registry) {}

bool StorageAdapter::Start() {
  table_ = StartArea(kTag, init_, registry_.storage);
  if (table_ == nullptr) return false;
  if (table_->get_path == nullptr) {
    VLOG_ERROR(kTag, "get_path interface has not been implemented");
    return false;
  }
  bool complete = Read(STORAGE_PATH_CONFIG, paths_.config, "Get config path failed");
  if (Read(STORAGE_PATH_USER_CONFIG, paths_.config_save, "Get config save path failed")) {
    paths_.config_save /= kSaveFolder;
  } else {
    complete = false;
  }
  complete = Read(STORAGE_PATH_USER_DATA, paths_.user_data, "Get userdata path failed") && complete;
  return Read(STORAGE_PATH_TEMPORARY, paths_.temporary, "Get temporary path failed") && complete;
}

bool StorageAdapter::Read(StoragePathType type, std::filesystem::path& path,
                          const char* failure) const {
  std::array<char, kHalPathSize> text{};
  if (table_->get_path(type, text.data(), text.size()) != HalStatus::kSuccess) {
    VLOG_ERROR(kTag, "{}", failure);
    return false;
  }
  path = text.data();
  return true;
}

}  // namespace varnel::hal_adapter
