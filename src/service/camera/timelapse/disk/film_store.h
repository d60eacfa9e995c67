#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "hal_interface/hal_status.h"
#include "service/camera/timelapse/disk/timelapse_paths.h"
#include "utils/clock.h"

namespace varnel::service {

/// What a client asks to be listed. Pages are counted from 1.
struct TimelapseQuery {
  bool all = true;
  size_t page_index = 1;
  size_t page_rows = 10;
  bool thumbnail_inline = false;
};

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

  /// {"total_count", "page_index", "page_rows", "count", "instances"}, the newest first. Null when
  /// the description file is locked or cannot be read.
  [[nodiscard]] nlohmann::json List(const TimelapseQuery& query) const;

  /// Removes a film with every trace. -86 without a description file, -87 for an illegal one, -2
  /// for an unknown index.
  [[nodiscard]] hal_adapter::HalStatus Delete(const std::string& index) const;

  /// The record of a film; a status as of Delete().
  [[nodiscard]] hal_adapter::HalStatus Find(const std::string& index, nlohmann::json& record) const;

  /// Completes deletions that were cut short. Before anything is served.
  void CompleteDeletions() const;
  /// Makes links that are missing, because the web directory was not there for example.
  void RepairLinks() const;

 private:
  struct Opened;

  std::optional<Opened> Open(std::chrono::seconds limit) const;
  /// The description as it is, for an operation that needs one.
  nlohmann::json LoadExisting(hal_adapter::HalStatus& status) const;
  /// The description to add to; a broken one is put aside. None when it cannot be read.
  std::optional<nlohmann::json> LoadOrStartNew() const;
  /// The description to show; a broken one counts as empty. None when it cannot be read.
  std::optional<nlohmann::json> LoadForListing() const;
  hal_adapter::HalStatus Write(const nlohmann::json& description) const;
  std::string AddRecord(const nlohmann::json& record) const;
  /// Failures are logged. Links whose film is missing are not made.
  void MakeLinks(const nlohmann::json& record, bool replace) const;
  void RemoveLinks(const std::string& index) const;
  hal_adapter::HalStatus DeleteLocked(const std::string& index) const;
  bool SetAside(const std::string& index) const;
  hal_adapter::HalStatus CompleteDeletion(const std::string& index) const;
  hal_adapter::HalStatus RemoveRecord(const std::string& index) const;
  nlohmann::json Page(const nlohmann::json& description, const TimelapseQuery& query) const;
  nlohmann::json Item(const nlohmann::json& record, bool thumbnail_inline) const;

  const TimelapsePaths& paths_;
  utils::Clock& clock_;
};

}  // namespace varnel::service
