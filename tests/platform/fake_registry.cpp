#include "platform/fake_registry.h"

#include "hal_interface/hal_register.h"

namespace varnel::hal_adapter {

void register_ai_hal(const AiHalInterface* iface) {
  test::registered.ai = iface;
}

void register_multimedia_hal(const MultimediaHalInterface* iface) {
  test::registered.multimedia = iface;
}

void register_storage_hal(const StorageHalInterface* iface) {
  test::registered.storage = iface;
}

void register_system_hal(const SystemHalInterface* iface) {
  test::registered.system = iface;
}

HalStatus post_hal_event(const HalEventRecord*) {
  return kHalSuccess;
}

}  // namespace varnel::hal_adapter
