#pragma once

#include <string>

#include "utils/client_path.h"

namespace varnel::hal_adapter {

enum class [[nodiscard]] PhotoStatus{
    kSuccess,
    kCaptureFailed,     ///< no camera, busy for too long, capture error or empty frame
    kNotWritable,       ///< the destination cannot be written
    kConversionFailed,  ///< the frame could not be made a picture
};

/// Takes photos with the main camera. Callable from any thread: callers are served one after
/// another.
class PhotoTaker {
 public:
  virtual ~PhotoTaker() = default;

  /// To a place of ours; an empty path saves nothing.
  virtual PhotoStatus TakePhoto(const std::string& path) = 0;
  /// The same to a place that is held.
  virtual PhotoStatus TakePhoto(const utils::FilePlace& place) = 0;
};

}  // namespace varnel::hal_adapter
