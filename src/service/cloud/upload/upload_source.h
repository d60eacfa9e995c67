#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "service/cloud/http/curl_transfer.h"
#include "utils/owned.h"

namespace varnel::service {

/// A regular file on its way, open from its first look to its last byte. Not for several threads.
class UploadSource {
 public:
  enum class State {
    kSame,
    kGone,       ///< its path leads elsewhere
    kShortened,  ///< it ends before what is asked for
    kChanged,
  };

  [[nodiscard]] static std::optional<UploadSource> Open(const std::filesystem::path& path,
                                                        std::error_code& error);

  const std::filesystem::path& Path() const { return path_; }
  /// As it was opened.
  uint64_t Size() const { return static_cast<uint64_t>(first_.st_size); }
  /// Whether it is still what was opened.
  /// @param needed_bytes from its begin
  [[nodiscard]] State Look(uint64_t needed_bytes) const;
  /// Fills the room with the bytes at the offset. False when there are fewer.
  [[nodiscard]] bool Read(uint64_t offset, char* buffer, size_t room) const;
  /// SHA-256 of a piece, in base64. Nothing when it cannot be read to its end, or at the stop.
  [[nodiscard]] std::optional<std::string> Checksum(uint64_t offset, uint64_t length,
                                                    const TransferStop& stop) const;

 private:
  UploadSource(std::filesystem::path path, utils::UniqueFd fd, const struct stat& first)
      : path_(std::move(path)), fd_(std::move(fd)), first_(first) {}

  std::filesystem::path path_;
  utils::UniqueFd fd_;
  struct stat first_;
};

}  // namespace varnel::service
