#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "hal_interface/hal_status.h"
#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "utils/result.h"

namespace varnel::service {

/// The file "timelapse.json", {"count", "instances"}. Its lock is the caller's business.
class FilmDescription {
 public:
  explicit FilmDescription(const TimelapsePaths& paths) : paths_(paths) {}

  /// As it is, for an operation that needs one: kFileNotFound without, kFileFormatError for an
  /// illegal one.
  utils::Result<nlohmann::json, hal_adapter::HalStatus> LoadExisting() const;
  /// To add to; a broken one is put aside under a number. None when it cannot be read.
  std::optional<nlohmann::json> LoadOrStartNew() const;
  /// To show; a broken one counts as empty. None when it cannot be read.
  std::optional<nlohmann::json> LoadForListing() const;
  /// Sets the count and replaces the file.
  hal_adapter::HalStatus Write(nlohmann::json description) const;

 private:
  [[nodiscard]] bool PutAside() const;

  const TimelapsePaths& paths_;
};

/// Of a store without films.
[[nodiscard]] nlohmann::json EmptyDescription();
/// A member of a record that is a text; empty for any other.
[[nodiscard]] std::string RecordText(const nlohmann::json& record, const char* key);
/// The record of an instance in "instances", or their end.
[[nodiscard]] nlohmann::json::iterator FindRecord(nlohmann::json& instances,
                                                  const std::string& index);
/// The records that can be shown, the newest first.
[[nodiscard]] std::vector<const nlohmann::json*> ShownRecords(const nlohmann::json& description);

}  // namespace varnel::service
