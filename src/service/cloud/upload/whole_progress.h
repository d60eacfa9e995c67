#pragma once

#include <algorithm>
#include <chrono>
#include <utility>

#include "service/cloud/upload/file_uploader.h"
#include "utils/clock.h"

namespace varnel::service {

/// Tells how far a whole file is, whatever is sent again of it.
class WholeProgress {
 public:
  WholeProgress(UploadProgress progress, uint64_t all_bytes, utils::Clock& clock)
      : progress_(std::move(progress)), all_(all_bytes), clock_(clock), told_(clock.Now()) {}

  /// False once the upload is to end.
  [[nodiscard]] bool Tell(uint64_t sent_bytes) {
    sent_ = std::max(sent_, sent_bytes);
    if (clock_.Now() - told_ >= std::chrono::seconds(1)) Report();
    return goes_on_;
  }
  /// The end of an upload that succeeded.
  void Finish() {
    sent_ = all_;
    if (!told_all_) Report();
  }

 private:
  void Report() {
    told_ = clock_.Now();
    told_all_ = sent_ == all_;
    if (progress_ && goes_on_) goes_on_ = progress_(sent_, all_);
  }

  const UploadProgress progress_;
  const uint64_t all_;
  utils::Clock& clock_;
  utils::Clock::TimePoint told_;
  uint64_t sent_ = 0;
  bool told_all_ = false;
  bool goes_on_ = true;
};

}  // namespace varnel::service
