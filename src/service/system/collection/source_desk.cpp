#include "service/system/collection/source_desk.h"

#include <utility>

namespace varnel::service {

std::shared_ptr<void> SourceDesk::Open(Copier copier) {
  const utils::MutexLock lock(mutex_);
  copier_ = std::make_shared<const Copier>(std::move(copier));
  return {this, [](SourceDesk* desk) {
            const utils::MutexLock closing(desk->mutex_);
            desk->copier_.reset();
          }};
}

SourceDesk::Copy SourceDesk::CopyOf(const std::string& source, const std::string& name) {
  std::shared_ptr<const Copier> copier;
  {
    const utils::MutexLock lock(mutex_);
    copier = copier_;
  }
  return copier ? (*copier)(source, name) : nullptr;
}

}  // namespace varnel::service
