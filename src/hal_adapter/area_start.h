#pragma once

#include <functional>

#include "hal_adapter/hal_registry.h"
#include "utils/log.h"

namespace varnel::hal_adapter {

/// The platform's initialisation of one area; it registers the area's table.
using AreaInit = std::function<HalStatus()>;

/// Runs the initialisation and returns the table of the area; null, with a log line, when either is
/// missing.
template <class Table>
[[nodiscard]] const Table* StartArea(const char* tag, const AreaInit& init,
                                     const TableSlot<Table>& slot) {
  if (init() != HalStatus::kSuccess) {
    VLOG_ERROR(tag, "Initialization failed");
    return nullptr;
  }
  const Table* table = slot.Get();
  if (table == nullptr) VLOG_ERROR(tag, "Interface is invalid");
  return table;
}

}  // namespace varnel::hal_adapter
