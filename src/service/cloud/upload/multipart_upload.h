#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "service/cloud/upload/upload_calls.h"
#include "service/cloud/upload/uploader.h"
#include "service/cloud/upload/whole_progress.h"

namespace varnel::service {

/// What an upload works with; all outlives it.
struct UploadTools {
  const UploadApi& api;
  Uploader& uploader;
  const UploadSource& source;
  const std::string& name;
  WholeProgress& progress;
  const RequestOptions& options;
  utils::Clock& clock;
};

/// One upload of a file in parts, each sent until it is there or cannot be. Once.
class MultipartUpload {
 public:
  explicit MultipartUpload(const UploadTools& tools);

  /// As FileUploader::Upload(). What is given up is cancelled at the server.
  [[nodiscard]] std::optional<std::string> Run();

 private:
  struct Part {
    FilePart piece;
    std::string url{};
    std::string etag{};
  };
  /// Attempts of one part that failed.
  struct Attempts {
    int repeats = 0;
    int signatures = 0;
  };

  bool ComputeChecksums();
  bool Create();
  std::optional<std::string> SendAndComplete();
  bool SendPart(size_t number);
  bool TryAgain(size_t number, const PutResult& put, Attempts& attempts);
  bool SignAgain(size_t number);
  bool Pause(std::chrono::milliseconds time, uint64_t sent_bytes);
  void Cancel();
  [[nodiscard]] nlohmann::json DescriptionOf(size_t number) const;
  [[nodiscard]] nlohmann::json Completion() const;
  Part& PartOf(size_t number) { return parts_[number - 1]; }

  const UploadTools tools_;
  std::vector<Part> parts_;
  std::string upload_id_;
};

}  // namespace varnel::service
