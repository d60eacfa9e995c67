#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "hal_interface/hal_status.h"
#include "service/camera/timelapse/disk/film_store.h"
#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "utils/result.h"

namespace varnel::service {

/// The way to the maker's cloud, as far as time-lapses need it.
class FileUploader {
 public:
  using Progress = std::function<void(uint64_t sent_bytes, uint64_t all_bytes)>;

  virtual ~FileUploader() = default;
  /// Whether there is an access code at this moment.
  [[nodiscard]] virtual bool HasAccess() = 0;
  /// The address of the uploaded file; nothing when it failed.
  [[nodiscard]] virtual std::optional<std::string> Upload(const std::filesystem::path& file,
                                                          const Progress& progress) = 0;
};

/// A board without a cloud.
class NoUploader : public FileUploader {
 public:
  bool HasAccess() override { return false; }
  std::optional<std::string> Upload(const std::filesystem::path&, const Progress&) override {
    return std::nullopt;
  }
};

/// What whoever decrypts an uploaded film needs. The password is a secret.
struct UploadedFilm {
  std::string url;
  std::string password;
  uint32_t iterations = 0;
  std::string salt_hex;
};

/// A film that went out, or a status as of FilmStore::Delete(); -86 also for a file that is
/// missing, -1 for all else.
using UploadResult = utils::Result<UploadedFilm, hal_adapter::HalStatus>;

/// Encrypts the "video" or the "thumbnail" of a finished film and uploads it.
UploadResult UploadFilm(const TimelapsePaths& paths, const FilmStore& store, FileUploader& uploader,
                        const std::string& index, const std::string& type);

}  // namespace varnel::service
