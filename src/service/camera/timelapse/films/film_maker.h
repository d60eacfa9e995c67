#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "service/camera/timelapse/disk/film_store.h"
#include "service/camera/timelapse/encoder/generation_progress.h"
#include "service/camera/timelapse/films/film_parts.h"
#include "utils/clock.h"
#include "utils/private_directory.h"

namespace varnel::service {

/// Sends a notification to the clients of the camera service; 0 or a negative status.
using NotifyClients = std::function<int(const std::string& method, nlohmann::json params)>;

/// How one attempt at a film ended, and why.
struct FilmAttempt {
  WorkEnd end = WorkEnd::kDone;
  std::string problem{};
  bool listed = false;  ///< it is done for clients; only the state is not recorded

  bool Done() const { return end == WorkEnd::kDone; }
};

/// Makes the film of an instance in GENERATING: all of it can be repeated at any time, after a
/// power failure too. One thread.
class FilmMaker {
 public:
  static constexpr int kAttempts = 3;
  /// Attempts after which a film does without a cover or a thumbnail that cannot be made.
  static constexpr uint32_t kManyFailures = 10;

  /// All must outlive it.
  FilmMaker(const Ffmpeg& ffmpeg, const FilmStore& store, NotifyClients notify,
            utils::Clock& clock);

  /// Segments that are known to play: checking them is most of the work of an attempt that fails.
  using PlayingSegments = std::set<std::filesystem::path>;

  /// One that fails can be repeated, with the segments that it found to play. Exceptions end here.
  [[nodiscard]] FilmAttempt Make(WorkDirectory& directory, PlayingSegments& playing,
                                 const GoOn& go_on) const;
  /// Tells clients that a film is not there yet.
  void NotifyFailed(const WorkDirectory& directory, const std::string& problem) const;
  /// Gives a finished film the record that is lost.
  void ListAgain(const WorkDirectory& directory) const;

 private:
  struct Film {
    PlayingSegments& playing;
    FilmParts parts{};
    std::filesystem::path path{};
    KnownPhotos photos{};                        ///< the bad ones are not in it
    std::set<std::filesystem::path> left_out{};  ///< segments
  };

  FilmAttempt Generate(WorkDirectory& directory, PlayingSegments& playing, const GoOn& go_on) const;
  FilmAttempt MakeVideo(const WorkDirectory& directory, Film& film, const GoOn& go_on) const;
  FilmAttempt MakeCover(const WorkDirectory& directory, const Film& film) const;
  FilmAttempt MakeThumbnail(const WorkDirectory& directory) const;
  FilmAttempt List(const WorkDirectory& directory, Film& film) const;
  FilmAttempt JoinAndCheck(const WorkDirectory& directory, Film& film, GenerationProgress& progress,
                           const GoOn& go_on) const;
  FilmAttempt Mend(const WorkDirectory& directory, Film& film, const GoOn& go_on) const;
  EncoderRun TryJoin(const WorkDirectory& directory, const Film& film,
                     const utils::PrivateDirectory& output) const;
  FilmAttempt Publish(const nlohmann::json& record) const;
  FilmAttempt Conclude(WorkDirectory& directory, const std::filesystem::path& video) const;
  void NotifyProgress(int percent) const;
  void NotifyCompleted(const nlohmann::json& params) const;

  const Ffmpeg& ffmpeg_;
  const FilmStore& store_;
  const NotifyClients notify_;
  utils::Clock& clock_;
};

}  // namespace varnel::service
