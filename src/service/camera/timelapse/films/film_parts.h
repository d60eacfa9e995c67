#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>

#include "service/camera/timelapse/films/segment_work.h"

namespace varnel::service {

/// What a film is joined from.
struct FilmParts {
  size_t frames = 0;
  uintmax_t bytes = 0;
};

/// The cover photo and its segment, as far as they are missing.
/// @param bad photos that cannot be encoded
[[nodiscard]] EncoderRun MakeCover(const Ffmpeg& ffmpeg, const WorkDirectory& directory,
                                   const std::set<uint32_t>& bad);

/// Writes the list of all segments, the cover first.
/// @param left_out segments that are not to be in the film
[[nodiscard]] WorkEnd ListAllSegments(const WorkDirectory& directory,
                                      const std::set<std::filesystem::path>& left_out,
                                      FilmParts& parts);

/// Looks at each segment, and encodes again what does not play. One that does not even then is left
/// out, and left where it is; kFailed when that goes for all of them, or nothing could be found
/// out.
/// @param playing segments that are known to play and not looked at again; those found are added
[[nodiscard]] WorkEnd MendSegments(const Ffmpeg& ffmpeg, const WorkDirectory& directory,
                                   std::set<std::filesystem::path>& left_out,
                                   std::set<std::filesystem::path>& playing, const GoOn& go_on);

}  // namespace varnel::service
