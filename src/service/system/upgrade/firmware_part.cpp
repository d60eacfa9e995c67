#include "service/system/upgrade/firmware_part.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "utils/atomic_file.h"
#include "utils/free_space.h"
#include "utils/write_all.h"

namespace varnel::service {
namespace {

using nlohmann::json;

constexpr size_t kMaxRecordBytes = 4096;
constexpr mode_t kMode = 0600;

}  // namespace

FirmwarePart::FirmwarePart(const FirmwareStore& store, const FirmwareDescription& description,
                           Limits limits, Digesting digesting, Progress progress)
    : store_(store),
      description_(description),
      limits_(limits),
      digesting_(std::move(digesting)),
      progress_(std::move(progress)),
      file_(::open(store.Part(description.fullversion).c_str(),
                   O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kMode)) {
  struct stat info {};
  if (file_ && (::fstat(file_.Get(), &info) != 0 || !S_ISREG(info.st_mode))) file_.Reset();
  if (!file_) {
    problem_ = Problem::kNoFile;
    return;
  }
  Continue();
  BeginDigest();
}

void FirmwarePart::Continue() {
  const auto text =
      utils::ReadSmallFile(store_.PartRecord(description_.fullversion), kMaxRecordBytes);
  const json record = text ? json::parse(*text, nullptr, false) : json();
  struct stat info {};
  try {
    if (record.is_object() && record.at("size").get<uint64_t>() == description_.size &&
        record.at("md5").get<std::string>() == description_.md5 &&
        ::fstat(file_.Get(), &info) == 0) {
      validator_ = record.at("validator").get<std::string>();
      synced_ = std::clamp<int64_t>(record.at("synced").get<int64_t>(), 0, info.st_size);
    }
  } catch (const json::exception&) {
    synced_ = 0;  // somebody else's words
  }
  if (validator_.empty()) synced_ = 0;
  position_ = synced_;
  if (::ftruncate(file_.Get(), position_) != 0) Fail(Problem::kNotWritten);
}

bool FirmwarePart::Fail(Problem problem) {
  problem_ = problem;
  return false;
}

bool FirmwarePart::HasRoom() const {
  const uint64_t missing = description_.size - static_cast<uint64_t>(position_);
  return utils::EnoughFreeSpace(store_.Directory(), missing + limits_.min_free_bytes);
}

bool FirmwarePart::WriteRecord() const {
  const json record = {{"size", description_.size},
                       {"md5", description_.md5},
                       {"validator", validator_},
                       {"synced", synced_}};
  return !utils::WriteFileAtomically(
      store_.PartRecord(description_.fullversion),
      record.dump(-1, ' ', false, json::error_handler_t::replace) + '\n', kMode);
}

/// The record goes first: it must never speak of bytes of another file.
bool FirmwarePart::StartOver(const std::string& validator) {
  position_ = synced_ = 0;
  validator_ = validator;
  ++beginnings_;
  digest_.reset();
  if (!WriteRecord() || ::ftruncate(file_.Get(), 0) != 0) return Fail(Problem::kNotWritten);
  BeginDigest();
  return true;
}

void FirmwarePart::BeginDigest() {
  digest_.emplace(file_.Get(), digesting_.with_sha256, position_, digesting_.stop);
}

bool FirmwarePart::Sync() {
  if (::fdatasync(file_.Get()) != 0) return Fail(Problem::kNotWritten);
  synced_ = position_;
  return WriteRecord() || Fail(Problem::kNotWritten);
}

bool FirmwarePart::Begin(const RangeStart& start) {
  if (start.size && static_cast<uint64_t>(*start.size) != description_.size)
    return Fail(Problem::kWrongSize);
  if (start.offset != 0 && start.offset == position_) return true;
  return start.offset == 0 && StartOver(start.validator);
}

bool FirmwarePart::Take(const char* data, size_t size) {
  if (::lseek(file_.Get(), position_, SEEK_SET) < 0 || utils::WriteAll(file_.Get(), {data, size}))
    return Fail(Problem::kNotWritten);
  position_ += static_cast<int64_t>(size);
  digest_->Add({data, size});
  return position_ - synced_ < limits_.sync_bytes || Sync();
}

bool FirmwarePart::GoOn(int64_t position) {
  if (!HasRoom()) return Fail(Problem::kNoRoom);
  return !progress_ || progress_(position);
}

}  // namespace varnel::service
