#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "service/cloud/http/curl_transfer.h"
#include "service/cloud/upload/upload_source.h"
#include "utils/clock.h"

namespace varnel::service {

/// A piece of a file.
struct FilePart {
  uint64_t offset = 0;
  uint64_t length = 0;
  std::string checksum{};  ///< SHA-256, base64
};

/// How a PUT ended.
struct PutResult {
  enum class End {
    kAnswered,
    kNoAnswer,  ///< the transfer failed; another one may not
    kGivenUp,   ///< stopped, or the file or the address is not good for another one
  };

  [[nodiscard]] bool IsStored() const { return status >= 200 && status < 300; }

  End end = End::kGivenUp;
  long status = 0;       ///< 0 without an answer
  std::string etag{};    ///< as it came
  bool expired = false;  ///< the address was good once
};

/// Sends pieces of files to the addresses that an object store has signed for them, over one
/// connection. By one thread.
class Uploader {
 public:
  /// Asked often, with the bytes of this piece that were sent; false ends the transfer.
  using Progress = std::function<bool(uint64_t sent_bytes)>;

  /// @param stop ends transfers
  explicit Uploader(TransferStop stop, utils::Clock& clock = utils::SystemClock::Instance());

  /// The whole file.
  [[nodiscard]] PutResult PutFile(const std::string& url, const UploadSource& source,
                                  const std::string& checksum, const Progress& progress);
  [[nodiscard]] PutResult PutFilePart(const std::string& url, const UploadSource& source,
                                      const FilePart& part, const Progress& progress);

 private:
  class Hooks;
  struct Put {
    const std::string& url;
    const UploadSource& source;
    const FilePart& part;
    const Progress& progress;
  };
  struct Answer {
    PutResult result;
    std::string problem;  ///< the library's words without an answer
    std::string body;
  };

  Answer Send(const Put& put);
  TransferResult Perform(Transfer& transfer, const Put& put) const;
  bool CheckUnchanged(const Put& put, Answer& answer) const;

  const TransferStop stop_;
  utils::Clock& clock_;
  ConnectionShare connections_;
};

}  // namespace varnel::service
