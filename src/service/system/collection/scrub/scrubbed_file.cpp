#include "service/system/collection/scrub/scrubbed_file.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "utils/last_error.h"
#include "utils/write_all.h"

namespace varnel::service {
namespace {

constexpr size_t kSmallestHole = 65'536;

bool IsAllZero(std::string_view bytes) {
  return bytes.front() == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0;
}

Masking MaskingOf(FileKind kind) {
  switch (kind) {
    case FileKind::kCounted:
      return Masking::kSameLength;
    case FileKind::kPicture:
      return Masking::kHeldOnly;
    default:
      return Masking::kShort;
  }
}

}  // namespace

bool ScrubbedFile::Feed(std::string_view bytes) {
  if (!scrubber_) {
    const size_t taken = std::min(bytes.size(), kFileHead - head_.size());
    head_.append(bytes.substr(0, taken));
    bytes.remove_prefix(taken);
    if (head_.size() < kFileHead) return true;
    if (!Begin()) return false;
  }
  scrubber_->Feed(bytes);
  return !error_;
}

/// False for a kind that is not taken in.
bool ScrubbedFile::Begin() {
  kind_ = KindOf(head_);
  if (IsRefused()) return false;
  scrubber_.emplace(held_, MaskingOf(*kind_), [this](std::string_view bytes) { Write(bytes); });
  scrubber_->Feed(head_);
  return true;
}

bool ScrubbedFile::IsRefused() const {
  return kind_ == FileKind::kPrivateKey || kind_ == FileKind::kGzip || kind_ == FileKind::kSealed;
}

void ScrubbedFile::Write(std::string_view bytes) {
  if (error_ || bytes.empty()) return;
  bytes_ += bytes.size();
  if (bytes.size() >= kSmallestHole && IsAllZero(bytes)) {
    if (::lseek(fd_, static_cast<off_t>(bytes.size()), SEEK_CUR) < 0) error_ = utils::LastError();
  } else {
    error_ = utils::WriteAll(fd_, bytes);
  }
}

std::error_code ScrubbedFile::Finish() {
  if (!scrubber_ && !kind_ && !Begin()) return {};
  if (!scrubber_) return error_;
  scrubber_->Finish();
  // The last run of zeros is not in it yet.
  if (!error_ && ::ftruncate(fd_, static_cast<off_t>(bytes_)) != 0) error_ = utils::LastError();
  return error_;
}

}  // namespace varnel::service
