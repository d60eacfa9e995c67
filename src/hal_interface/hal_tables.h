#pragma once

#include <cstddef>
#include <cstdint>

#include "hal_interface/hal_records.h"
#include "hal_interface/hal_status.h"

namespace varnel::hal_adapter {

/// The operation tables that the platform layer fills, one per area. A null pointer is an empty
/// slot. Tables are static objects of the platform and live as long as the process.
struct AiHalInterface {
  /// `out` holds 4096 bytes; receives the directory of the detection results.
  HalStatus (*get_ai_basic_info)(char* out);
};

/// The caller serialises all calls into this table.
struct MultimediaHalInterface {
  HalStatus (*get_camera_count)(uint32_t* count);
  HalStatus (*get_camera_info)(uint32_t id, CameraInfo* info);
  HalStatus (*get_camera_state)(uint32_t id, uint32_t* state);
  /// A null `config` stands for the camera's default configuration.
  HalStatus (*open_camera)(uint32_t id, const CameraConfig* config);
  HalStatus (*close_camera)(uint32_t id);
  HalStatus (*set_camera_config)(uint32_t id, const CameraConfig* config);
  HalStatus (*reserved)(uint32_t id);
  /// The caller clears `image` before the call: 0 with a zero size means that no frame came.
  HalStatus (*take_photo)(uint32_t id, CameraImage* image);
};

struct StorageHalInterface {
  /// `type` is a StoragePathType.
  HalStatus (*get_path)(uint32_t type, char* out, size_t size);
};

struct SystemHalInterface {
  HalStatus (*get_device_info)(DeviceInfo* info);
  HalStatus (*check)(const void* pointer);
  HalStatus (*upgrade_firmware)(uint32_t target, const char* package);
  HalStatus (*collect_platform_data)(uint32_t type, const char* out_dir);
  /// Announces the reboot; the caller does it.
  HalStatus (*prepare_reboot)();
  HalStatus (*reserved)();
};

/// Size of the buffer that receives a path from the platform.
inline constexpr size_t kHalPathSize = 4096;

static_assert(sizeof(AiHalInterface) == 1 * sizeof(void*));
static_assert(sizeof(MultimediaHalInterface) == 8 * sizeof(void*));
static_assert(sizeof(StorageHalInterface) == 1 * sizeof(void*));
static_assert(sizeof(SystemHalInterface) == 6 * sizeof(void*));

}  // namespace varnel::hal_adapter
