#pragma once

#include "hal_interface/hal_tables.h"

namespace varnel::test {

/// The tables that the platform registered; these tests stand in for the HAL adapter.
struct RegisteredTables {
  const hal_adapter::AiHalInterface* ai = nullptr;
  const hal_adapter::MultimediaHalInterface* multimedia = nullptr;
  const hal_adapter::StorageHalInterface* storage = nullptr;
  const hal_adapter::SystemHalInterface* system = nullptr;
};
inline RegisteredTables registered;

}  // namespace varnel::test
