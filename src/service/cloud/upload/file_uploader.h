#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace varnel::service {

/// Of a whole file: bytes that were sent, and all of them. Never falls; at most once a second and
/// at the end, by the thread that uploads. False ends the upload.
using UploadProgress = std::function<bool(uint64_t sent_bytes, uint64_t all_bytes)>;

/// Asked several times a second by the thread that uploads, also while nothing moves: true ends the
/// upload, a second and a half later at most when the cloud is to be told of it.
using UploadStop = std::function<bool()>;

/// A file for the cloud.
struct UploadRequest {
  std::filesystem::path file;
  std::string name;              ///< under which it is stored
  bool log = false;              ///< whether it is worth lines of the log when all goes well
  UploadProgress progress = {};  ///< may be empty
  UploadStop stop = {};          ///< may be empty
};

/// The way of files to the maker's cloud. Thread-safe.
class FileUploader {
 public:
  virtual ~FileUploader() = default;
  /// Whether there is an access code at this moment.
  [[nodiscard]] virtual bool HasAccess() = 0;
  /// The address of the stored file, which is empty when the cloud names none; nothing when it
  /// failed, with the reason in the log. Returns when all is done; a file that changes meanwhile
  /// is a failure.
  [[nodiscard]] virtual std::optional<std::string> Upload(const UploadRequest& request) = 0;
};

/// A board without a cloud.
class NoUploader : public FileUploader {
 public:
  bool HasAccess() override { return false; }
  std::optional<std::string> Upload(const UploadRequest&) override { return std::nullopt; }
};

}  // namespace varnel::service
