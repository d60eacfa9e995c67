#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "service/camera/timelapse/disk/film_store.h"
#include "service/camera/timelapse/disk/work_directory.h"
#include "service/camera/timelapse/encoder/video_encoder.h"
#include "utils/clock.h"

namespace varnel::service {

/// Sends a notification to the clients of the camera service; 0 or a negative status.
using NotifyClients = std::function<int(const std::string& method, nlohmann::json params)>;

/// Encodes pictures of an instance. One encoder runs at a time, whoever calls; a print that runs
/// goes before films that are finished.
class SegmentEncoder {
 public:
  explicit SegmentEncoder(const VideoEncoder& encoder) : encoder_(encoder) {}

  /// Encodes one photo of a running print and adds its segment to the list. A photo that cannot be
  /// encoded is logged, and tried once more when the film is made.
  void Encode(const WorkDirectory& instance, uint32_t number);
  /// The photos that an interrupted print, or an encoder that failed, left. One that cannot be
  /// encoded is left out. False when the encoder could not do its work: the photos may be good.
  [[nodiscard]] bool EncodeRest(const WorkDirectory& instance);
  [[nodiscard]] bool EncodeCover(const WorkDirectory& instance);
  [[nodiscard]] bool MakeThumbnail(const WorkDirectory& instance);
  /// Encodes a segment again that cannot be decoded; it is removed when that does not help. False
  /// when nothing could be found out about it.
  [[nodiscard]] bool Mend(const WorkDirectory& instance, const std::filesystem::path& photo,
                          const std::filesystem::path& segment);

 private:
  enum class Urgency { kPrinting, kFinishing };
  class Turn;

  EncoderRun EncodeInTurn(const WorkDirectory& instance, uint32_t number);

  const VideoEncoder& encoder_;
  std::mutex mutex_;
  std::condition_variable free_;
  bool busy_ = false;       // mutex_
  int printing_waits_ = 0;  // mutex_
};

/// Makes the film of one instance in GENERATING: all of it can be repeated at any time, after a
/// power failure too.
class FilmMaker {
 public:
  static constexpr int kAttempts = 3;

  FilmMaker(const VideoEncoder& encoder, SegmentEncoder& segments, const FilmStore& store,
            NotifyClients notify, utils::Clock& clock = utils::SystemClock::Instance(),
            uint64_t min_free_bytes = 0);

  /// False when it could not be made; the state is GENERATING then.
  bool Finish(WorkDirectory& instance);

 private:
  struct Film {
    std::filesystem::path path;
    size_t frames = 0;
    uintmax_t segment_bytes = 0;
  };

  bool MakeCover(const WorkDirectory& instance);
  /// False when there is nothing to join.
  bool ListSegments(const WorkDirectory& instance, Film& film) const;
  bool JoinAndCheck(const WorkDirectory& instance, Film& film) const;
  bool MendSegments(const WorkDirectory& instance, Film& film) const;
  bool HasRoomFor(const Film& film) const;
  bool TryJoin(const WorkDirectory& instance, const Film& film,
               const utils::PrivateDirectory& output) const;
  nlohmann::json RecordOf(const WorkDirectory& instance, const Film& film) const;
  void NotifyProgress(int percent) const;
  void NotifyCompleted(const nlohmann::json& params) const;
  std::string Make(WorkDirectory& instance);
  std::string Publish(const nlohmann::json& record, const Film& film) const;

  const VideoEncoder& encoder_;
  SegmentEncoder& segments_;
  const FilmStore& store_;
  const NotifyClients notify_;
  utils::Clock& clock_;
  const uint64_t min_free_bytes_;
};

}  // namespace varnel::service
