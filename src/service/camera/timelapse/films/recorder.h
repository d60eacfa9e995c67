#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <thread>

#include "service/camera/timelapse/disk/work_directory.h"
#include "service/camera/timelapse/films/film_maker.h"

namespace varnel::service {

enum class TimelapsePhoto { kTaken, kNotActive, kFailed };

/// The time-lapse of the current print: takes its photos, and turns each into a segment on a thread
/// of its own, in order. Thread-safe.
class Recorder {
 public:
  /// Photos that wait for the encoder; the next one waits for room after it was taken.
  static constexpr size_t kMaxWaiting = 2;

  /// Takes a photo with the main camera to a path. True when the file is whole.
  using TakePhotoTo = std::function<bool(const std::string& path)>;

  Recorder(std::shared_ptr<WorkDirectory> instance, TakePhotoTo take_photo,
           SegmentEncoder& segments);
  /// Waits for the segment being encoded.
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// A new instance becomes ACTIVATED; a continued one must be it.
  [[nodiscard]] bool Start(bool continued);
  /// Returns when the photo's file is whole.
  [[nodiscard]] TimelapsePhoto TakePhoto();
  /// The state becomes GENERATING. False when it is not active or has no photo.
  [[nodiscard]] bool Stop();
  /// Takes no more photos and forgets those that wait: the print goes on in another time-lapse.
  /// Does not wait for the encoder.
  void Abandon();

  /// Ends the encoding thread; what waits is left on disk for the finisher.
  void EndEncoding();

  WorkDirectory& Instance() { return *instance_; }
  TimelapseState State() const { return instance_->State(); }

 private:
  bool Capture(uint32_t number) const;
  void Enqueue(uint32_t number);
  void Close();
  TimelapsePhoto Take(uint32_t& number);
  void EncodeWaiting(const std::stop_token& stop);
  void Encode(uint32_t number) noexcept;

  const std::shared_ptr<WorkDirectory> instance_;
  const TakePhotoTo take_photo_;
  SegmentEncoder& segments_;

  std::mutex photo_mutex_;    // one photo, and no state change while it is taken
  uint32_t next_number_ = 1;  // photo_mutex_

  std::atomic<bool> closed_ = false;  // no photo is encoded any more

  std::mutex queue_mutex_;
  std::condition_variable_any queue_changed_;
  std::deque<uint32_t> waiting_;  // queue_mutex_
  std::deque<uint32_t> left_;     // by an interruption; they come after those; queue_mutex_

  std::mutex thread_mutex_;
  std::jthread encoding_;  // thread_mutex_
};

}  // namespace varnel::service
