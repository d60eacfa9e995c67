#pragma once

#include <optional>
#include <string>

#include "service/cloud/upload/file_uploader.h"
#include "service/cloud/upload/multipart_upload.h"
#include "service/cloud/upload/upload_calls.h"
#include "utils/clock.h"

namespace varnel::service {

/// Files reach the maker's cloud: its API signs addresses of an object store, the bytes go there,
/// and the API is told when they have. Uploads run side by side, each over a connection of its own.
class CloudUpload : public FileUploader {
 public:
  /// @param stop ends uploads; called by their threads
  explicit CloudUpload(UploadApi api, TransferStop stop = nullptr,
                       utils::Clock& clock = utils::SystemClock::Instance());

  bool HasAccess() override { return api_.has_access(); }
  std::optional<std::string> Upload(const UploadRequest& request) override;

 private:
  std::optional<std::string> UploadOrThrow(const UploadRequest& request);
  [[nodiscard]] UploadApi OneServer() const;
  static std::optional<std::string> UploadWhole(const UploadTools& tools);

  const UploadApi api_;
  const TransferStop stop_;
  utils::Clock& clock_;
};

}  // namespace varnel::service
