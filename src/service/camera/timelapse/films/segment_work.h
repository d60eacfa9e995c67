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

/// What was found out about an instance's photos; all of it can be found out again.
struct KnownPhotos {
  std::set<uint32_t> bad{};  ///< the encoder refused them
  uint32_t settled = 0;      ///< up to this one, each has its segment or is bad
};

/// Encodes the photos that have no segment, in order, and lists their segments.
/// @param known what is passed over; what is found out is added
[[nodiscard]] WorkEnd EncodeMissing(const Ffmpeg& ffmpeg, const WorkDirectory& directory,
                                    KnownPhotos& known, const GoOn& go_on);

}  // namespace varnel::service
