#pragma once

#include <string>

#include "hal_adapter/photo_taker.h"

namespace varnel::service {

/// Counts the photos that it is asked for.
struct CountingCamera : hal_adapter::PhotoTaker {
  hal_adapter::PhotoStatus TakePhoto(const std::string&) override {
    ++photos;
    return status;
  }
  hal_adapter::PhotoStatus TakePhoto(const utils::FilePlace&) override {
    ++photos;
    return status;
  }
  hal_adapter::PhotoStatus status = hal_adapter::PhotoStatus::kSuccess;
  int photos = 0;
};

}  // namespace varnel::service
