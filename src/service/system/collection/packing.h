#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "utils/secret.h"

namespace varnel::service {

struct PackingSetup {
  std::filesystem::path directory;  ///< everything lies in it
  std::filesystem::path public_key;
  std::filesystem::path password_file;
  std::string tar;
  std::string openssl;
  uint64_t min_free_bytes = 0;
  std::function<bool()> stopped;
};

/// Makes an archive of a directory, if need be one that only the holder of a private key can open.
/// Each step's input goes when the step is done. Failures are std::runtime_error, after their line
/// in the log.
class Packing {
 public:
  explicit Packing(PackingSetup setup) : setup_(std::move(setup)) {}

  /// Packs a directory with tar, whatever is said about its members.
  /// @param options the first argument, "zcvf" for example
  void Tar(const std::string& options, const std::filesystem::path& archive,
           const std::filesystem::path& directory, const std::vector<std::string>& members) const;

  /// The content becomes one file, which is returned.
  [[nodiscard]] std::filesystem::path Plain(const std::filesystem::path& content) const;
  [[nodiscard]] std::filesystem::path Encrypted(const std::filesystem::path& content) const;

 private:
  class PasswordFile;

  void RequireRoomFor(const std::filesystem::path& source) const;
  void EncryptArchive(const std::filesystem::path& archive,
                      const utils::SecretString& password) const;
  void EncryptPassword(const utils::SecretString& password) const;

  const PackingSetup setup_;
};

}  // namespace varnel::service
