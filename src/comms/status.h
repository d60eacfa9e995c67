#pragma once

#include <cstdint>

namespace varnel::comms {

/// Outcome of the messaging layer's operations: 0 is success, every failure is negative.
enum class [[nodiscard]] CommsStatus : int32_t{
    kOk = 0,    kFailure = -1,     kInvalidArgument = -2, kTimeout = -5,
    kBusy = -6, kUnsupported = -7, kNotInitialized = -8,  kNotConnected = -9,
};

constexpr int32_t Code(CommsStatus status) {
  return static_cast<int32_t>(status);
}

}  // namespace varnel::comms
