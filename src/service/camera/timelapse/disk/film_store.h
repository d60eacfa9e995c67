#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "hal_interface/hal_status.h"
#include "service/camera/timelapse/disk/film_description.h"
#include "service/camera/timelapse/disk/film_listing.h"
#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "utils/clock.h"
#include "utils/result.h"

namespace varnel::service {

/// The description file of all finished films, "timelapse.json". Every operation holds the lock
/// file meanwhile, so that threads and other programs that honour it never interleave. Thread-safe.
class FilmStore {
 public:
  static constexpr std::chrono::seconds kLockLimit{10};
  /// A listing changes nothing and is asked for often.
  static constexpr std::chrono::seconds kListLockLimit{3};

  explicit FilmStore(const TimelapsePaths& paths,
                     utils::Clock& clock = utils::SystemClock::Instance());

  /// Adds the record of a film, or replaces that of the same "date_index", and links it for local
  /// clients. A description file that is no such file is kept beside as "*.bad" and a new one
  /// begun. Empty, or why it failed.
  [[nodiscard]] std::string Publish(const nlohmann::json& record) const;

  /// {"total_count", "page_index", "page_rows", "count", "instances"}, the newest first. None when
  /// the description file is locked or cannot be read.
  [[nodiscard]] std::optional<nlohmann::json> List(const TimelapseQuery& query) const;

  /// Removes a film with every trace. kFileNotFound without a description file, kFileFormatError
  /// for an illegal one, kInvalidParameter for an unknown index.
  hal_adapter::HalStatus Delete(const std::string& index) const;

  /// The record of a film; a status as of Delete().
  utils::Result<nlohmann::json, hal_adapter::HalStatus> Find(const std::string& index) const;

  /// Those of the instances that have no record. Nothing when that cannot be told.
  [[nodiscard]] std::optional<std::vector<std::string>> Unlisted(
      std::vector<std::string> indices) const;

  /// Completes deletions that were cut short. Before anything is served.
  void CompleteDeletions() const;
  /// Makes links that are missing, because the web directory was not there for example.
  void RepairLinks() const;

 private:
  struct Opened;

  std::optional<Opened> Open(std::chrono::seconds limit) const;
  std::string AddRecord(const nlohmann::json& record) const;
  hal_adapter::HalStatus DeleteLocked(const std::string& index) const;
  bool SetAside(const std::string& index) const;
  hal_adapter::HalStatus CompleteDeletion(const std::string& index) const;
  hal_adapter::HalStatus RemoveRecord(const std::string& index) const;

  const TimelapsePaths& paths_;
  const FilmDescription description_;
  utils::Clock& clock_;
};

}  // namespace varnel::service
