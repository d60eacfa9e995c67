#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <string>

namespace varnel::service {

/// The name without its ending of the picture with this number.
[[nodiscard]] std::string PictureName(uint64_t number);

/// A directory that holds a bounded number of result pictures, "printer_detect<number>...jpg".
/// Other files in it are neither counted nor touched. What is in it is remembered, so that a
/// picture costs the same whether ten or ten thousand are there; the directory is read again when
/// somebody else changed it. Used by one thread at a time.
class PictureDirectory {
 public:
  using Writer = std::function<bool(const std::string& path)>;

  /// @param path empty for a directory that could not be made: nothing is written then
  explicit PictureDirectory(std::filesystem::path path = {}) : path_(std::move(path)) {}

  /// Pictures there now.
  [[nodiscard]] size_t Count();
  /// Of the newest picture, 0 without any.
  [[nodiscard]] uint64_t HighestNumber();
  /// Has a picture written under this name; the oldest go until it is one of at most `limit`.
  /// @return its path, empty when it was not written
  std::string Add(const std::string& name, size_t limit, const Writer& write);

 private:
  struct Picture {
    uint64_t number;
    std::string name;
  };
  void Refresh();
  void List();
  bool MakeRoom(size_t limit);
  struct stat Stamp() const;

  std::filesystem::path path_;
  std::deque<Picture> pictures_;  ///< oldest first
  struct stat seen_ {};           ///< of the directory when it was as `pictures_` says
};

}  // namespace varnel::service
