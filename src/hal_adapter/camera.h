#pragma once

#include <cstdint>

#include "hal_interface/hal_tables.h"

namespace varnel::hal_adapter {

/// One camera of the multimedia table. Operations return the platform's status, -8 without a table
/// and -7 for an empty slot, each with a log line. Not thread-safe: the multimedia adapter
/// serialises.
class Camera {
 public:
  /// `table` may be null: the camera is then never ready.
  Camera(const MultimediaHalInterface* table, uint32_t id);

  uint32_t Id() const { return id_; }
  /// What UpdateInfo() read last.
  const CameraInfo& Info() const { return info_; }

  /// Of the whole board, not of this camera.
  HalStatus GetCount(uint32_t& count) const;
  HalStatus UpdateInfo();
  /// Null: the camera's default configuration.
  HalStatus Open(const CameraConfig* config) const;
  HalStatus Close() const;
  HalStatus SetConfig(const CameraConfig& config) const;
  /// Clears `image` first: success with a zero size means that no frame came.
  HalStatus TakePhoto(CameraImage& image) const;
  /// Continuous capture; no camera of the board supports it.
  HalStatus StartStream() const { return Unsupported(); }
  HalStatus StopStream() const { return Unsupported(); }

 private:
  template <class Slot>
  HalStatus Check(Slot MultimediaHalInterface::*slot, const char* empty_text) const;
  HalStatus Unsupported() const;

  const MultimediaHalInterface* const table_;
  const bool ready_;
  const uint32_t id_;
  CameraInfo info_{};
};

}  // namespace varnel::hal_adapter
