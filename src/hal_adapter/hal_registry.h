#pragma once

#include <atomic>

#include "hal_interface/hal_tables.h"
#include "utils/log.h"

namespace varnel::hal_adapter {

/// Keeps the operation table of one area; readable while another thread registers.
template <class Table>
class TableSlot {
 public:
  TableSlot(const char* tag, const char* registered_text, const char* null_text)
      : tag_(tag), registered_text_(registered_text), null_text_(null_text) {}

  void Register(const Table* table) {
    if (table == nullptr) {
      VLOG_ERROR(tag_, "{}", null_text_);
      return;
    }
    table_ = table;
    VLOG_INFO(tag_, "{}", registered_text_);
  }

  /// Null until a table was registered.
  const Table* Get() const { return table_; }

 private:
  const char* const tag_;
  const char* const registered_text_;
  const char* const null_text_;
  std::atomic<const Table*> table_{nullptr};
};

/// The tables of all areas. Adapters read the table after the platform's initialisation of their
/// area.
struct HalRegistry {
  TableSlot<AiHalInterface> ai{"HALAI", "AI HAL interface registered",
                               "AI HAL interface register failed, iface is null"};
  TableSlot<MultimediaHalInterface> multimedia{
      "HALMM", "Multimedia HAL interface registered",
      "Multimedia HAL interface register failed, iface is null"};
  TableSlot<StorageHalInterface> storage{"HALSTO", "Storage HAL interface registered",
                                         "Storage HAL interface register failed, iface is null"};
  TableSlot<SystemHalInterface> system{"HALSYS", "System HAL interface registered",
                                       "System HAL interface register failed, iface is null"};

  /// The one that the register_*_hal() functions fill.
  static HalRegistry& Instance();
};

}  // namespace varnel::hal_adapter
