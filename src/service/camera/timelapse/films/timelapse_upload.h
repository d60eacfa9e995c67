#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "hal_interface/hal_status.h"
#include "service/camera/timelapse/disk/film_store.h"
#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "service/cloud/upload/file_uploader.h"
#include "utils/mutex.h"
#include "utils/openssl_crypto.h"
#include "utils/owned.h"
#include "utils/permits.h"
#include "utils/result.h"

namespace varnel::service {

/// What whoever decrypts an uploaded film needs. The password is a secret.
struct UploadedFilm {
  std::string url;  ///< empty when the cloud names none
  std::string password;
  uint32_t iterations = 0;
  std::string salt_hex;
};

/// A film that went out, or a status as of FilmStore::Delete(); -86 also for a file that is
/// missing, -1 for all else.
using UploadResult = utils::Result<UploadedFilm, hal_adapter::HalStatus>;

/// Encrypts the "video" or the "thumbnail" of finished films and uploads them. Thread-safe.
class FilmUploads {
 public:
  /// All outlives it.
  FilmUploads(const TimelapsePaths& paths, const FilmStore& store, FileUploader& uploader)
      : paths_(paths), store_(store), uploader_(uploader) {}

  /// Returns when the film is there. Of more than two at a time the others fail at once.
  UploadResult Upload(const std::string& index, const std::string& type);

 private:
  static constexpr int kMaxUploads = 2;
  struct Film {
    const std::string& index;
    const std::string& type;
    std::string source;
    utils::UniqueFd file;  ///< what was judged
  };

  UploadResult EncryptAndSend(const Film& film);
  void Encrypt(const Film& film, utils::OpenSSLCrypto& crypto, const std::filesystem::path& target);

  const TimelapsePaths& paths_;
  const FilmStore& store_;
  FileUploader& uploader_;
  utils::Permits permits_{kMaxUploads};
  utils::Mutex copy_mutex_;  // the room for one copy is not counted for another one too
};

}  // namespace varnel::service
