#pragma once

#include <cstdint>
#include <functional>
#include <set>

#include "service/camera/timelapse/disk/work_directory.h"
#include "service/camera/timelapse/encoder/encoder_run.h"

namespace varnel::service {

/// Asked between two runs of the encoder: false ends the work.
using GoOn = std::function<bool()>;

/// How work on an instance came to its end.
enum class [[nodiscard]] WorkEnd{
    kDone,
    kShortage,     ///< there is no room for it
    kFailed,       ///< the encoder could not do its work: the photos may be good
    kInterrupted,  ///< by what was asked between two runs
};

/// Encodes the photos that have no segment, in order, and lists their segments.
/// @param bad photos that are passed over; those that the encoder refuses are added
[[nodiscard]] WorkEnd EncodeMissing(const Ffmpeg& ffmpeg, const WorkDirectory& directory,
                                    std::set<uint32_t>& bad, const GoOn& go_on);

}  // namespace varnel::service
