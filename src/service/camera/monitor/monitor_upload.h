#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "service/cloud/upload/file_uploader.h"
#include "utils/clock.h"
#include "utils/turn.h"

namespace varnel::service {

/// The way of pictures to the cloud, where each takes the place of the one before: always under one
/// name, and never two at once. Thread-safe.
class MonitorUpload {
 public:
  /// @param stored_name asked at each upload
  MonitorUpload(FileUploader& uploader, std::function<std::string()> stored_name,
                utils::Clock& clock)
      : uploader_(uploader), stored_name_(std::move(stored_name)), clock_(clock), turn_(clock) {}

  /// The first picture of a start; waits for one that is on its way. The address, or nothing when
  /// it does not get there.
  [[nodiscard]] std::optional<std::string> SendFirst(const std::filesystem::path& file,
                                                     const UploadStop& stop);
  /// One of many: is left out while another one is on its way.
  /// @param patience without anything that moves; 0: any
  /// @return false: it did not get there
  [[nodiscard]] bool SendNext(const std::filesystem::path& file, const UploadStop& stop,
                              std::chrono::milliseconds patience);

 private:
  FileUploader& uploader_;
  const std::function<std::string()> stored_name_;
  utils::Clock& clock_;
  utils::Turn turn_;
};

}  // namespace varnel::service
