#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "service/camera/timelapse/encoder/encoder_run.h"
#include "utils/private_directory.h"

namespace varnel::service {

/// What a joining run writes into its output directory.
inline constexpr const char* kJoinedFilm = "film.mp4";
inline constexpr const char* kJoinProgress = "progress.txt";

/// Joins the listed segments as they are. A segment that cannot be opened ends the film there, and
/// all the same the run is a success: kDone only when all frames were counted.
[[nodiscard]] EncoderRun JoinSegments(const Ffmpeg& ffmpeg, const std::filesystem::path& list,
                                      const utils::PrivateDirectory& output,
                                      const std::filesystem::path& log, size_t frames);

/// Decodes a whole video of so many frames; kFailed when it does not play.
[[nodiscard]] EncoderRun CheckVideo(const Ffmpeg& ffmpeg, const std::filesystem::path& video,
                                    const std::filesystem::path& log, size_t frames);
/// Whether a line of the checking run's standard error tells of a fault. Libraries print there too.
[[nodiscard]] bool IsComplaint(const std::string& line, const std::string& video);

/// "MM:SS"; "00:00" when it cannot be told.
[[nodiscard]] std::string VideoDuration(const EncoderPrograms& programs,
                                        const std::filesystem::path& video);

}  // namespace varnel::service
