#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "utils/held_directory.h"
#include "utils/owned.h"

namespace varnel::utils {

/// A new directory that nobody else may enter, for what another program writes: there a planted
/// link cannot turn a name into another file. The program gets Fd() as its working directory and
/// the file's name alone. It goes with this object, with everything in it.
class PrivateDirectory {
 public:
  /// Makes it in `parent`, whose links are followed.
  [[nodiscard]] static std::optional<PrivateDirectory> Create(const std::filesystem::path& parent,
                                                              std::error_code& error);
  PrivateDirectory(PrivateDirectory&& other) noexcept = default;
  PrivateDirectory(const PrivateDirectory&) = delete;
  ~PrivateDirectory();

  int Fd() const { return own_->Fd(); }
  /// Of a file in it, for whoever only reads.
  std::filesystem::path PathOf(const std::string& name) const { return own_->Path() / name; }
  /// Opens what was written. Never through a link, never a device.
  [[nodiscard]] UniqueFd OpenResult(const std::string& name, std::error_code& error) const;
  /// Syncs what was written and puts it beside this directory, in the place of what is there.
  [[nodiscard]] std::error_code Publish(const std::string& name, const std::string& target,
                                        mode_t mode) const;

 private:
  explicit PrivateDirectory(HeldDirectory parent) : parent_(std::move(parent)) {}
  int MakeOwn(const char* name);

  HeldDirectory parent_;
  std::string name_;
  std::optional<HeldDirectory> own_;
};

}  // namespace varnel::utils
