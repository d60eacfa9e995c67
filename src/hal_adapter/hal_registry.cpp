#include "hal_adapter/hal_registry.h"

#include "hal_interface/hal_register.h"

namespace varnel::hal_adapter {

HalRegistry& HalRegistry::Instance() {
  static HalRegistry registry;
  return registry;
}

void register_ai_hal(const AiHalInterface* iface) {
  HalRegistry::Instance().ai.Register(iface);
}

void register_multimedia_hal(const MultimediaHalInterface* iface) {
  HalRegistry::Instance().multimedia.Register(iface);
}

void register_storage_hal(const StorageHalInterface* iface) {
  HalRegistry::Instance().storage.Register(iface);
}

void register_system_hal(const SystemHalInterface* iface) {
  HalRegistry::Instance().system.Register(iface);
}

}  // namespace varnel::hal_adapter
