#pragma once

#include <cstddef>
#include <cstdint>

namespace varnel::hal_adapter {

enum CameraType : uint32_t { CAMERA_TYPE_USB = 0, CAMERA_TYPE_MIPI = 2 };

enum CameraPixelFormat : uint32_t { CAMERA_PIXEL_FORMAT_NV12 = 3, CAMERA_PIXEL_FORMAT_YUYV = 4 };

enum CameraState : uint32_t {
  CAMERA_STATE_NOT_INITIALISED = 0,
  CAMERA_STATE_INITIALISED = 1,
  CAMERA_STATE_OPENED = 2,
};

struct CameraInfo {
  uint32_t camera_id;
  uint32_t reserved;
  uint32_t type;  ///< CameraType
  char name[16];
  uint32_t max_width;
  uint32_t max_height;
  uint32_t frame_rate;
  uint8_t flags[3];
};

struct CameraConfig {
  uint32_t width;
  uint32_t height;
  uint32_t pixel_format;  ///< CameraPixelFormat
};

/// One captured frame. `data` belongs to the camera and is valid until its next capture or close.
struct CameraImage {
  const uint8_t* data;
  size_t size;
  uint64_t timestamp_ms;
  uint32_t width;
  uint32_t height;
  uint32_t pixel_format;  ///< CameraPixelFormat
  uint32_t camera_id;
};

enum HalEventType : uint32_t {
  HAL_EVENT_SYS_USB_DRIVE_INSERT = 2,  ///< payload: mount directory of the drive
  /// The same for a drive that was there before the daemon, or mounted late: open to clients, but
  /// it asks for nothing. Each restart of the daemon would do again what an insertion starts.
  HAL_EVENT_SYS_USB_DRIVE_PRESENT = 3,
};

/// An asynchronous event of the platform; copied by value.
struct HalEventRecord {
  uint32_t type;
  char payload[256];  ///< NUL-terminated
};
static_assert(sizeof(HalEventRecord) == 260);

/// Who this board is; every field is NUL-terminated text. The device key is a secret: never logged
/// or written.
struct DeviceInfo {
  char serial_number[64];
  char product_code[64];
  char device_key[1024];
  char firmware_version[32];
  char full_firmware_version[64];
  char hardware_version[32];
  char mac[32];
  char processor_serial[256];
};

enum StoragePathType : uint32_t {
  STORAGE_PATH_CONFIG = 0,
  STORAGE_PATH_USER_CONFIG = 1,
  STORAGE_PATH_USER_DATA = 2,
  STORAGE_PATH_TEMPORARY = 3,
};

}  // namespace varnel::hal_adapter
