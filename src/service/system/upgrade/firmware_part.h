#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "service/cloud/http/ranged_download.h"
#include "service/system/upgrade/firmware_description.h"
#include "service/system/upgrade/firmware_store.h"
#include "service/system/upgrade/following_digest.h"
#include "utils/owned.h"

namespace varnel::service {

/// A firmware on its way to the disk. What was synced survives a power cut, with the server's word
/// for which file it is the beginning of. One thread.
class FirmwarePart : public RangeSink {
 public:
  /// What is fetched again after a cut is less than twice this.
  static constexpr int64_t kSyncBytes = int64_t{8} << 20U;

  /// Why it does not go on.
  enum class Problem { kNone, kNoFile, kNoRoom, kNotWritten, kWrongSize };
  /// Called about once a second, with what is there. False ends the download.
  using Progress = std::function<bool(int64_t position)>;

  struct Limits {
    uint64_t min_free_bytes = 0;  ///< stay free beside what is still to come
    int64_t sync_bytes = kSyncBytes;
  };
  /// What is computed of the bytes while they come.
  struct Digesting {
    bool with_sha256 = false;
    std::function<bool()> stop{};  ///< ends the wait for the last of it
  };

  /// Goes on with what is there of this firmware. The store outlives it.
  FirmwarePart(const FirmwareStore& store, const FirmwareDescription& description, Limits limits,
               Digesting digesting, Progress progress);

  [[nodiscard]] bool IsOpen() const { return static_cast<bool>(file_); }
  [[nodiscard]] bool HasRoom() const;
  /// Where the next bytes go.
  [[nodiscard]] int64_t Position() const { return position_; }
  [[nodiscard]] const std::string& Validator() const { return validator_; }
  [[nodiscard]] Problem Why() const { return problem_; }
  /// How often it has begun anew.
  [[nodiscard]] int Beginnings() const { return beginnings_; }
  /// Makes it last; false when that fails.
  [[nodiscard]] bool Sync();
  /// Of all that is there, once; nothing when it could not be read, or at the stop.
  [[nodiscard]] std::optional<FirmwareDigests> Digests() {
    return digest_ ? digest_->End() : std::nullopt;
  }

  bool Begin(const RangeStart& start) override;
  bool Take(const char* data, size_t size) override;
  bool GoOn(int64_t position) override;

 private:
  void Continue();
  void BeginDigest();
  [[nodiscard]] bool StartOver(const std::string& validator);
  [[nodiscard]] bool WriteRecord() const;
  bool Fail(Problem problem);

  const FirmwareStore& store_;
  const FirmwareDescription& description_;
  const Limits limits_;
  const Digesting digesting_;
  const Progress progress_;
  utils::UniqueFd file_;
  int64_t position_ = 0;
  int64_t synced_ = 0;
  std::string validator_;
  int beginnings_ = 0;
  Problem problem_ = Problem::kNone;
  std::optional<FollowingDigest> digest_;  // reads the file
};

}  // namespace varnel::service
