#pragma once

#include "hal_interface/hal_records.h"
#include "hal_interface/hal_status.h"
#include "hal_interface/hal_tables.h"

/// What the platform layer calls; the HAL adapter defines it. All functions are callable from any
/// thread.
namespace varnel::hal_adapter {

/// Runs on the dispatch thread and must not block it for long; may post events and register
/// callbacks.
using HalEventCallback = void (*)(const HalEventRecord* event, void* user_data);

/// A null table is reported and leaves the registered one in place.
void register_ai_hal(const AiHalInterface* iface);
void register_multimedia_hal(const MultimediaHalInterface* iface);
void register_storage_hal(const StorageHalInterface* iface);
void register_system_hal(const SystemHalInterface* iface);

/// Queues a copy of `event` for the dispatch thread: 0, -2 for a null event, -9 when the queue is
/// full.
HalStatus post_hal_event(const HalEventRecord* event);

/// Callbacks of one type run in the order of their registration; `user_data` must live as long as
/// the process.
HalStatus register_hal_event_callback(uint32_t type, HalEventCallback callback, void* user_data);

}  // namespace varnel::hal_adapter
